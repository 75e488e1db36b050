#include <Security/Authorization.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "shared/platform/linux/AuthorizationObject.h"
#include "shared/platform/linux/SystemBus.h"

namespace {

constexpr AuthorizationFlags kKnownFlags =
    kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights |
    kAuthorizationFlagPartialRights | kAuthorizationFlagDestroyRights |
    kAuthorizationFlagPreAuthorize;

// polkit's authority on the bus, and systemd's action: org.freedesktop.PolicyKit1(8).
constexpr char kPolkitService[] = "org.freedesktop.PolicyKit1";
constexpr char kPolkitObject[] = "/org/freedesktop/PolicyKit1/Authority";
constexpr char kPolkitInterface[] = "org.freedesktop.PolicyKit1.Authority";
constexpr char kAction[] = "org.freedesktop.systemd1.manage-units";
constexpr uint32_t kAllowUserInteraction = 1;

constexpr char kPkexec[] = "/usr/bin/pkexec";
constexpr char kPkexecName[] = "pkexec";
// Exit status of pkexec(1) when the user closed its dialog.
constexpr int kPkexecDismissed = 126;

constexpr char kNullDevice[] = "/dev/null";

/// Asks polkit about the calling process. Its start time is left for polkit to find out.
OSStatus AskPolkit(bool mayInteract) {
  int error = 0;
  const BusConnection bus = OpenSystemBus(error);
  if (bus == nullptr) {
    return errAuthorizationInternal;
  }
  if (mayInteract) {
    sd_bus_set_method_call_timeout(bus.get(), kInteractionMicroseconds);
  }
  BusError busError;
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call_method(
      bus.get(), kPolkitService, kPolkitObject, kPolkitInterface, "CheckAuthorization",
      busError.get(), &reply, "(sa{sv})sa{ss}us", "unix-process", 3, "pid", "u",
      static_cast<uint32_t>(getpid()), "start-time", "t", uint64_t{0}, "uid", "i",
      static_cast<int32_t>(getuid()), kAction, 0, mayInteract ? kAllowUserInteraction : 0, "");
  const BusMessage owner(reply);
  if (result < 0) {
    return errAuthorizationInternal;
  }
  int isAuthorized = 0;
  int isChallenge = 0;
  if (sd_bus_message_enter_container(reply, 'r', "bba{ss}") <= 0 ||
      sd_bus_message_read(reply, "bb", &isAuthorized, &isChallenge) <= 0 ||
      sd_bus_message_enter_container(reply, 'a', "{ss}") < 0) {
    return errAuthorizationInternal;
  }
  if (isAuthorized) {
    return errAuthorizationSuccess;
  }
  const char* key = nullptr;
  const char* value = nullptr;
  while (sd_bus_message_read(reply, "{ss}", &key, &value) > 0) {
    if (strcmp(key, "polkit.dismissed") == 0) {
      return errAuthorizationCanceled;
    }
  }
  return isChallenge && !mayInteract ? errAuthorizationInteractionNotAllowed
                                     : errAuthorizationDenied;
}

/// A pipe whose ends are no standard streams and are closed on exec. Both are -1 on failure.
struct Pipe {
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == 0) {
      readEnd = AboveStandardStreams(ends[0]);
      writeEnd = AboveStandardStreams(ends[1]);
    }
  }
  ~Pipe() {
    CloseReadEnd();
    CloseWriteEnd();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  bool IsOpen() const { return readEnd >= 0 && writeEnd >= 0; }
  void CloseReadEnd() { Close(readEnd); }
  void CloseWriteEnd() { Close(writeEnd); }

  int readEnd = -1;
  int writeEnd = -1;

 private:
  static int AboveStandardStreams(int file) {
    if (file > STDERR_FILENO) {
      return file;
    }
    const int moved = fcntl(file, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(file);
    return moved;
  }
  static void Close(int& file) {
    if (file >= 0) {
      close(file);
    }
    file = -1;
  }
};

/// In the child, where only async-signal-safe functions may be called: becomes the program. Does
/// not return: writes errno to the status pipe when it fails.
[[noreturn]] void ExecuteInChild(char* const* arguments, const Pipe& output, const Pipe& status,
                                 bool hasOutput, bool isPkexec) {
  for (int each = 1; each < NSIG; ++each) {
    (void)signal(each, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  const int null = open(kNullDevice, O_RDONLY | O_CLOEXEC);
  if (null >= 0 &&
      (null == STDIN_FILENO ? fcntl(null, F_SETFD, 0) : dup2(null, STDIN_FILENO)) >= 0 &&
      (!hasOutput || dup2(output.writeEnd, STDOUT_FILENO) >= 0)) {
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    if (isPkexec) {
      // It stays open until pkexec becomes the tool, or ends.
      fcntl(status.writeEnd, F_SETFD, 0);
    }
    execv(arguments[0], arguments);
  }
  const int error = errno;
  while (write(status.writeEnd, &error, sizeof(error)) < 0 && errno == EINTR) {
  }
  _exit(127);
}

/// Waits until the child has become its program, or pkexec the tool. Returns 0, or the errno with
/// which the child failed.
int AwaitExecution(const Pipe& status) {
  int error = 0;
  ssize_t length = 0;
  do {
    length = read(status.readEnd, &error, sizeof(error));
  } while (length < 0 && errno == EINTR);
  return length == sizeof(error) ? error : 0;
}

int AwaitExit(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

/// Whether the child, which has closed its status pipe, is pkexec still: it has been refused, and
/// ends. A process that has ended keeps its name until it is waited for.
bool IsStillPkexec(pid_t child) {
  std::ifstream file("/proc/" + std::to_string(child) + "/comm");
  std::string name;
  std::getline(file, name);
  return name == kPkexecName;
}

void* ReapChild(void* argument) {
  const std::unique_ptr<pid_t> child(static_cast<pid_t*>(argument));
  AwaitExit(*child);
  return nullptr;
}

/// Waits for the child in a thread of its own: nobody else does, and it is to leave no zombie.
void ReapInBackground(pid_t child) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::unique_ptr<pid_t> argument(new pid_t(child));
  pthread_t thread;
  if (pthread_create(&thread, nullptr, ReapChild, argument.get()) == 0) {
    // The thread's now.
    (void)argument.release();
    pthread_detach(thread);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

/// What is executed: the tool, or pkexec with the tool's absolute path, since it would look a
/// relative one up in its own list of folders. Empty when there is no such tool.
std::vector<std::string> CommandLine(const AuthorizationObject& authorization, const char* tool,
                                     char* const* arguments, bool isPkexec) {
  std::vector<std::string> line;
  if (isPkexec) {
    char absolute[PATH_MAX];
    if (realpath(tool, absolute) == nullptr) {
      return line;
    }
    line.push_back(kPkexec);
    if (!authorization.mayInteract) {
      line.push_back("--disable-internal-agent");
    }
    line.push_back(absolute);
  } else {
    line.push_back(tool);
  }
  for (; arguments != nullptr && *arguments != nullptr; ++arguments) {
    line.push_back(*arguments);
  }
  return line;
}

}  // namespace

OSStatus AuthorizationCreate(const AuthorizationRights* rights,
                             const AuthorizationEnvironment* /*environment*/,
                             AuthorizationFlags flags, AuthorizationRef* authorization) {
  if (authorization == nullptr) {
    return errAuthorizationInvalidPointer;
  }
  *authorization = nullptr;
  if ((flags & ~kKnownFlags) != 0) {
    return errAuthorizationInvalidFlags;
  }
  const bool wantsRights = rights != nullptr && rights->count > 0;
  if (wantsRights && rights->items == nullptr) {
    return errAuthorizationInvalidSet;
  }
  const bool mayInteract = (flags & kAuthorizationFlagInteractionAllowed) != 0;
  if (wantsRights && geteuid() != 0) {
    const OSStatus status = AskPolkit(mayInteract);
    if (status != errAuthorizationSuccess) {
      return status;
    }
  }
  AuthorizationObject* object = new (std::nothrow) AuthorizationObject{mayInteract};
  *authorization = reinterpret_cast<AuthorizationRef>(object);
  return object == nullptr ? errAuthorizationInternal : errAuthorizationSuccess;
}

OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags /*flags*/) {
  if (authorization == nullptr) {
    return errAuthorizationInvalidRef;
  }
  delete ObjectOf(authorization);
  return errAuthorizationSuccess;
}

OSStatus AuthorizationExecuteWithPrivileges(AuthorizationRef authorization, const char* pathToTool,
                                            AuthorizationFlags options, char* const* arguments,
                                            FILE** communicationsPipe) {
  if (authorization == nullptr) {
    return errAuthorizationInvalidRef;
  }
  if (pathToTool == nullptr) {
    return errAuthorizationInvalidPointer;
  }
  if (options != kAuthorizationFlagDefaults) {
    return errAuthorizationInvalidFlags;
  }
  const bool isPkexec = geteuid() != 0;
  std::vector<std::string> line =
      CommandLine(*ObjectOf(authorization), pathToTool, arguments, isPkexec);
  if (line.empty()) {
    return errAuthorizationToolExecuteFailure;
  }
  std::vector<char*> pointers;
  pointers.reserve(line.size() + 1);
  for (std::string& each : line) {
    pointers.push_back(&each[0]);
  }
  pointers.push_back(nullptr);

  Pipe output;
  Pipe status;
  if (!output.IsOpen() || !status.IsOpen()) {
    return errAuthorizationInternal;
  }
  const pid_t child = fork();
  if (child < 0) {
    return errAuthorizationInternal;
  }
  if (child == 0) {
    ExecuteInChild(pointers.data(), output, status, communicationsPipe != nullptr, isPkexec);
  }
  output.CloseWriteEnd();
  status.CloseWriteEnd();
  if (AwaitExecution(status) != 0) {
    AwaitExit(child);
    return errAuthorizationToolExecuteFailure;
  }
  if (isPkexec && IsStillPkexec(child)) {
    const int ended = AwaitExit(child);
    return WIFEXITED(ended) && WEXITSTATUS(ended) == kPkexecDismissed ? errAuthorizationCanceled
                                                                      : errAuthorizationDenied;
  }
  ReapInBackground(child);
  if (communicationsPipe == nullptr) {
    return errAuthorizationSuccess;
  }
  *communicationsPipe = fdopen(output.readEnd, "r");
  if (*communicationsPipe == nullptr) {
    return errAuthorizationInternal;
  }
  output.readEnd = -1;
  return errAuthorizationSuccess;
}
