#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>

#include <pwd.h>
#include <systemd/sd-login.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// logind's name of the seat that a machine's own console belongs to (sd-login(3)).
constexpr char kConsoleSeat[] = "seat0";
// Class of a display manager's session, while it asks who wants to log in.
constexpr char kGreeterClass[] = "greeter";
// State of a session whose user has logged out, while something of it still runs.
constexpr char kClosingState[] = "closing";

constexpr size_t kFirstPasswdBuffer = 1024;
constexpr size_t kLargestPasswdBuffer = 1048576;

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

/// getpwuid_r(3) with a buffer that grows. Returns its result; `found` is null without an entry.
/// What `entry` points to is in `buffer`, which the caller frees in any case.
int FindPasswdEntry(uid_t user, struct passwd& entry, struct passwd*& found, char*& buffer) {
  for (size_t size = kFirstPasswdBuffer; size <= kLargestPasswdBuffer; size *= 2) {
    char* larger = static_cast<char*>(realloc(buffer, size));
    if (larger == nullptr) {
      return ENOMEM;
    }
    buffer = larger;
    int error = EINTR;
    while (error == EINTR) {
      error = getpwuid_r(user, &entry, buffer, size, &found);
    }
    if (error != ERANGE) {
      return error;
    }
  }
  return ERANGE;
}

/// The user's new name, and the group. Without a passwd entry the name is the id in decimal, and
/// the group stays as it is. Nil when nobody can tell whether there is an entry, and when the name
/// in it is not UTF-8.
NSString* CopyUserName(uid_t user, gid_t& group) {
  struct passwd entry;
  struct passwd* found = nullptr;
  char* buffer = nullptr;
  const int error = FindPasswdEntry(user, entry, found, buffer);
  NSString* name = nil;
  if (error == 0 && found != nullptr) {
    group = found->pw_gid;
    name = [[NSString alloc] initWithUTF8String:found->pw_name];
  } else if (error == 0 || error == ENOENT || error == ESRCH) {
    name = [[NSString alloc] initWithFormat:@"%u", user];
  }
  free(buffer);
  return name;
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
