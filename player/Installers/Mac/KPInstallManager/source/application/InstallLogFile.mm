#import "player/Installers/Mac/KPInstallManager/source/application/InstallLogFile.h"

#import <SystemConfiguration/SystemConfiguration.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "shared/platform/posix/EffectiveUser.h"
#include "shared/platform/posix/FolderWalk.h"
#include "shared/platform/posix/RegularFile.h"

namespace {

constexpr uid_t kRoot = 0;
constexpr mode_t kLogMode = 0666;

// The user at the console.
struct ConsoleUser {
  // Nil at the login window and when no user is logged in. The caller releases it.
  NSString* name;
  uid_t user;
  gid_t group;
};

ConsoleUser CopyConsoleUser() {
  ConsoleUser console = {nil, kRoot, static_cast<gid_t>(-1)};
  console.name = (NSString*)SCDynamicStoreCopyConsoleUser(nullptr, &console.user, &console.group);
  if ([console.name isEqualToString:@"loginwindow"]) {
    [console.name release];
    console.name = nil;
  }
  return console;
}

int OpenLog(const char* path, struct stat* status = nullptr) {
  return OpenRegularFile(path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW, kLogMode,
                         FileNames::kOne, status);
}

int OpenLogAs(const ConsoleUser& console, const char* path) {
  const EffectiveUser effective([console.name UTF8String], console.user, console.group);
  if (!effective.IsActive()) {
    errno = EPERM;
    return -1;
  }
  return OpenLog(path);
}

bool IsOwner(uid_t owner, uid_t user) { return owner == kRoot || owner == user; }

// Opens the log with root's rights where nothing but root and `user` could have placed it.
int OpenLogAsRoot(const char* path, uid_t user) {
  FolderWalk walk;
  if (strchr(path, '/') == nullptr || !walk.Start("/")) {
    return -1;
  }
  const char* const name = walk.EnterFolderOf(path);
  if (name == nullptr || !IsOwner(walk.Owner(), user)) {
    return -1;
  }
  struct stat status = {};
  const int log = OpenLog(name, &status);
  if (log >= 0 && !IsOwner(status.st_uid, user)) {
    close(log);
    return -1;
  }
  return log;
}

}  // namespace

int OpenInstallLogFile(NSString* path) {
  if ([path length] == 0) {
    return -1;
  }
  const char* file = [path fileSystemRepresentation];
  if (geteuid() != kRoot) {
    return OpenLog(file);
  }
  const ConsoleUser console = CopyConsoleUser();
  if (console.name == nil) {
    // The path may lead into the home of a user who has logged out since it was made, so root does
    // not simply open it.
    return OpenLogAsRoot(file, kRoot);
  }
  int log = OpenLogAs(console, file);
  if (log < 0 && (errno == EACCES || errno == EPERM)) {
    log = OpenLogAsRoot(file, console.user);
  }
  [console.name release];
  return log;
}
