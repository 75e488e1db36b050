#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>

#include <pwd.h>
#include <systemd/sd-login.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

// logind's name of the seat that a machine's own console belongs to (sd-login(3)).
constexpr char kConsoleSeat[] = "seat0";
// Class of a display manager's session before a user has logged in.
constexpr char kGreeterClass[] = "greeter";
// State of a session whose user has logged out, while something of it still runs.
constexpr char kClosingState[] = "closing";

// Enough for every entry that the C library's own tools accept.
constexpr size_t kPasswdBuffer = size_t{1024} * 1024;

/// Finds the session in the foreground of the console; false when there is none.
bool FindConsoleSession(uid_t& user, bool& isGreeter) {
  char* session = nullptr;
  if (sd_seat_get_active(kConsoleSeat, &session, &user) < 0) {
    return false;
  }
  char* sessionClass = nullptr;
  char* state = nullptr;
  const bool exists = sd_session_get_class(session, &sessionClass) >= 0 &&
                      sd_session_get_state(session, &state) >= 0 &&
                      strcmp(state, kClosingState) != 0;
  isGreeter = exists && strcmp(sessionClass, kGreeterClass) == 0;
  free(state);
  free(sessionClass);
  free(session);
  return exists;
}

/// Returns the user's name, which the caller releases, and sets `group`. Without a passwd entry the
/// name is the id in decimal, and the group stays as it is. Nil when the name service fails, and
/// when the name is not UTF-8.
NSString* CopyUserName(uid_t user, gid_t& group) {
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kPasswdBuffer]);
  if (buffer == nullptr) {
    return nil;
  }
  struct passwd entry;
  struct passwd* found = nullptr;
  int error = EINTR;
  while (error == EINTR) {
    error = getpwuid_r(user, &entry, buffer.get(), kPasswdBuffer, &found);
  }
  if (error == 0 && found != nullptr) {
    group = found->pw_gid;
    return [[NSString alloc] initWithUTF8String:found->pw_name];
  }
  const bool hasNoEntry = error == 0 || error == ENOENT || error == ESRCH;
  return hasNoEntry ? [[NSString alloc] initWithFormat:@"%u", user] : nil;
}

}  // namespace

CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef /*store*/, uid_t* uid, gid_t* gid) {
  uid_t user = 0;
  bool isGreeter = false;
  if (!FindConsoleSession(user, isGreeter)) {
    return nullptr;
  }
  gid_t group = static_cast<gid_t>(-1);
  NSString* name = CopyUserName(user, group);
  if (isGreeter) {
    [name release];
    name = [@"loginwindow" retain];
  }
  if (name == nil) {
    return nullptr;
  }
  if (uid != nullptr) {
    *uid = user;
  }
  if (gid != nullptr) {
    *gid = group;
  }
  return (CFStringRef)name;
}
