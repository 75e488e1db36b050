// SCDynamicStoreCopyConsoleUser for the answers of libsystemd.
#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pwd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/unit/support/Text.h"

// ---- The functions of libsystemd that the port calls

static const char* s_session;
static uid_t s_sessionUser;
static const char* s_class;
static const char* s_state;
static std::string s_seatAsked;

extern "C" int sd_seat_get_active(const char* seat, char** session, uid_t* uid) {
  s_seatAsked = seat;
  if (s_session == nullptr) {
    return -ENODATA;
  }
  *session = strdup(s_session);
  *uid = s_sessionUser;
  return 0;
}

extern "C" int sd_session_get_class(const char* session, char** sessionClass) {
  EXPECT_STREQ(s_session, session);
  if (s_class == nullptr) {
    return -ENXIO;
  }
  *sessionClass = strdup(s_class);
  return 0;
}

extern "C" int sd_session_get_state(const char* session, char** state) {
  EXPECT_STREQ(s_session, session);
  if (s_state == nullptr) {
    return -ENXIO;
  }
  *state = strdup(s_state);
  return 0;
}

// ---- The user database: the C library's, except for what a test sets

/// Errors that the next look-ups return without being made; the last one is taken first.
static std::vector<int> s_lookupErrors;
static size_t s_largestBuffer;
static const char* s_userName;

extern "C" int getpwuid_r(uid_t user, struct passwd* entry, char* buffer, size_t size,
                          struct passwd** found) {
  using Function = int (*)(uid_t, struct passwd*, char*, size_t, struct passwd**);
  static const Function original = (Function)dlsym(RTLD_NEXT, "getpwuid_r");
  s_largestBuffer = size;
  if (!s_lookupErrors.empty()) {
    const int error = s_lookupErrors.back();
    s_lookupErrors.pop_back();
    *found = nullptr;
    return error;
  }
  const int error = original(user, entry, buffer, size, found);
  if (s_userName != nullptr && *found != nullptr) {
    entry->pw_name = const_cast<char*>(s_userName);
  }
  return error;
}

namespace {

constexpr uid_t kNobodysId = 3999999999u;
constexpr uid_t kUnset = 12345;

class ConsoleUserTest : public testing::Test {
 protected:
  ConsoleUserTest() {
    s_session = "c1";
    s_sessionUser = 0;
    s_class = "user";
    s_state = "active";
    s_seatAsked.clear();
    s_lookupErrors.clear();
    s_largestBuffer = 0;
    s_userName = nullptr;
  }
  ~ConsoleUserTest() override { [pool_ release]; }

  std::string User() {
    NSString* name = (NSString*)SCDynamicStoreCopyConsoleUser(nullptr, &uid_, &gid_);
    const std::string text = Text(name);
    [name release];
    return text;
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  uid_t uid_ = kUnset;
  gid_t gid_ = kUnset;
};

TEST_F(ConsoleUserTest, ActiveSession) {
  EXPECT_EQ("root", User());
  EXPECT_EQ(0u, uid_);
  EXPECT_EQ(0u, gid_);
  EXPECT_EQ("seat0", s_seatAsked);
}

TEST_F(ConsoleUserTest, IdsAreTheSessionUsers) {
  const struct passwd* entry = getpwnam("nobody");
  ASSERT_NE(nullptr, entry);
  s_sessionUser = entry->pw_uid;
  EXPECT_EQ("nobody", User());
  EXPECT_EQ(entry->pw_uid, uid_);
  EXPECT_EQ(entry->pw_gid, gid_);
}

TEST_F(ConsoleUserTest, NoActiveSessionOrNoLogind) {
  s_session = nullptr;
  EXPECT_EQ("(absent)", User());
  EXPECT_EQ(kUnset, uid_);
  EXPECT_EQ(kUnset, gid_);
}

TEST_F(ConsoleUserTest, SessionThatEndsMeanwhile) {
  s_class = nullptr;
  EXPECT_EQ("(absent)", User());
  EXPECT_EQ(kUnset, uid_);
  EXPECT_EQ(kUnset, gid_);
}

TEST_F(ConsoleUserTest, SessionThatCloses) {
  s_state = "closing";
  EXPECT_EQ("(absent)", User());
  s_class = "greeter";
  EXPECT_EQ("(absent)", User());
  EXPECT_EQ(kUnset, uid_);
  EXPECT_EQ(kUnset, gid_);
}

TEST_F(ConsoleUserTest, SessionThatEndsBeforeItsStateIsAsked) {
  s_state = nullptr;
  EXPECT_EQ("(absent)", User());
  EXPECT_EQ(kUnset, uid_);
  EXPECT_EQ(kUnset, gid_);
}

TEST_F(ConsoleUserTest, SessionInOtherStates) {
  s_state = "online";
  EXPECT_EQ("root", User());
}

TEST_F(ConsoleUserTest, LoginScreen) {
  s_class = "greeter";
  const struct passwd* entry = getpwnam("nobody");
  ASSERT_NE(nullptr, entry);
  s_sessionUser = entry->pw_uid;
  EXPECT_EQ("loginwindow", User());
  EXPECT_EQ(entry->pw_uid, uid_);
  EXPECT_EQ(entry->pw_gid, gid_);
}

TEST_F(ConsoleUserTest, UserWithoutAPasswdEntry) {
  ASSERT_EQ(nullptr, getpwuid(kNobodysId));
  s_sessionUser = kNobodysId;
  EXPECT_EQ("3999999999", User());
  EXPECT_EQ(kNobodysId, uid_);
  EXPECT_EQ(static_cast<gid_t>(-1), gid_);
  s_class = "greeter";
  EXPECT_EQ("loginwindow", User());
}

TEST_F(ConsoleUserTest, NoEntryIsToldInSeveralWays) {
  for (int error : {0, ENOENT, ESRCH}) {
    s_lookupErrors = {error};
    EXPECT_EQ("0", User()) << error;
    EXPECT_EQ(0u, uid_);
    EXPECT_EQ(static_cast<gid_t>(-1), gid_);
  }
}

TEST_F(ConsoleUserTest, UserDatabaseThatCannotBeAsked) {
  for (int error : {EIO, EMFILE, ENFILE, ENOMEM, EPERM, EAGAIN}) {
    s_lookupErrors = {error};
    EXPECT_EQ("(absent)", User()) << error;
    EXPECT_EQ(kUnset, uid_);
    EXPECT_EQ(kUnset, gid_);
  }
  s_lookupErrors = {EIO};
  s_class = "greeter";
  EXPECT_EQ("loginwindow", User()) << "a login screen needs no name";
  EXPECT_EQ(static_cast<gid_t>(-1), gid_);
}

TEST_F(ConsoleUserTest, InterruptedLookUpIsMadeAgain) {
  s_lookupErrors = {EINTR, EINTR, EINTR};
  EXPECT_EQ("root", User());
}

TEST_F(ConsoleUserTest, EntryOfAnyReasonableSize) {
  EXPECT_EQ("root", User());
  EXPECT_EQ(size_t{1} << 20, s_largestBuffer);

  s_lookupErrors = {ERANGE};
  EXPECT_EQ("(absent)", User());
  EXPECT_EQ(size_t{1} << 20, s_largestBuffer);
}

TEST_F(ConsoleUserTest, NameThatIsNotUTF8) {
  s_userName = "ren\xE9";
  EXPECT_EQ("(absent)", User());
  s_userName = "ren\xC3\xA9";
  EXPECT_EQ("ren\xC3\xA9", User());
}

TEST_F(ConsoleUserTest, IdsNeedNotBeAskedFor) {
  CFStringRef name = SCDynamicStoreCopyConsoleUser(nullptr, nullptr, nullptr);
  EXPECT_EQ("root", Text((NSString*)name));
  CFRelease(name);

  s_session = nullptr;
  EXPECT_EQ(nullptr, SCDynamicStoreCopyConsoleUser(nullptr, nullptr, nullptr));
}

TEST_F(ConsoleUserTest, CallerOwnsTheName) {
  s_sessionUser = kNobodysId;
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  NSString* name = (NSString*)SCDynamicStoreCopyConsoleUser(nullptr, nullptr, nullptr);
  [pool release];
  EXPECT_EQ("3999999999", Text(name));
  CFRelease((CFStringRef)name);
}

}  // namespace
