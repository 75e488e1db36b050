#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>

#include <pwd.h>
#include <systemd/sd-login.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// logind's name of the seat that a machine's own console belongs to (sd-login(3)).
constexpr char kConsoleSeat[] = "seat0";
// Class of a display manager's session, while it asks who wants to log in.
constexpr char kGreeterClass[] = "greeter";

constexpr size_t kFirstPasswdBuffer = 1024;
constexpr size_t kLargestPasswdBuffer = 1048576;

/// Finds the session in the foreground of the console; false when there is none.
bool FindConsoleSession(uid_t& user, bool& isGreeter) {
  char* session = nullptr;
  if (sd_seat_get_active(kConsoleSeat, &session, &user) < 0) {
    return false;
  }
  char* sessionClass = nullptr;
  const bool exists = sd_session_get_class(session, &sessionClass) >= 0;
  isGreeter = exists && strcmp(sessionClass, kGreeterClass) == 0;
  free(sessionClass);
  free(session);
  return exists;
}

/// The user's new name, and the group; nil, and the group untouched, without a passwd entry.
NSString* CopyUserName(uid_t user, gid_t& group) {
  struct passwd entry;
  struct passwd* found = nullptr;
  std::vector<char> buffer(kFirstPasswdBuffer);
  while (getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < kLargestPasswdBuffer) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr) {
    return nil;
  }
  group = found->pw_gid;
  return [[NSString alloc] initWithUTF8String:found->pw_name];
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
  } else if (name == nil) {
    name = [[NSString alloc] initWithFormat:@"%u", user];
  }
  if (uid != nullptr) {
    *uid = user;
  }
  if (gid != nullptr) {
    *gid = group;
  }
  return (CFStringRef)name;
}
