// SCDynamicStoreCopyConsoleUser over every answer that libsystemd can give.
#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>
#include <gtest/gtest.h>
#include <pwd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/unit/support/Text.h"

// ---- libsystemd, as far as the port calls it

static const char* s_session;
static uid_t s_sessionUser;
static const char* s_class;
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

namespace {

constexpr uid_t kNobodysId = 3999999999u;
constexpr uid_t kUnset = 12345;

class ConsoleUserTest : public testing::Test {
 protected:
  ConsoleUserTest() {
    s_session = "c1";
    s_sessionUser = 0;
    s_class = "user";
    s_seatAsked.clear();
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
