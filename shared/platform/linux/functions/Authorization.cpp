#include <Security/Authorization.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

#include "shared/platform/linux/environment/EnvironmentFilter.h"
#include "shared/platform/linux/functions/AuthorizationObject.h"
#include "shared/platform/linux/systemd/SystemBus.h"
#include "shared/platform/posix/Uninterrupted.h"

namespace {

// polkit's authority on the bus, and systemd's action: org.freedesktop.PolicyKit1(8).
constexpr char kPolkitService[] = "org.freedesktop.PolicyKit1";
constexpr char kPolkitObject[] = "/org/freedesktop/PolicyKit1/Authority";
constexpr char kPolkitInterface[] = "org.freedesktop.PolicyKit1.Authority";
constexpr char kManageUnits[] = "org.freedesktop.systemd1.manage-units";
constexpr char kExecute[] = "org.freedesktop.policykit.exec";
constexpr uint32_t kAllowUserInteraction = 1;

constexpr char kPkexec[] = "/usr/bin/pkexec";
constexpr char kKeepFolder[] = "--keep-cwd";
constexpr char kPkexecName[] = "pkexec";
// Exit status of pkexec(1) when the user closed its dialog.
constexpr int kPkexecDismissed = 126;

// Readable by every user, unless /proc hides the processes of others: proc(5), hidepid.
constexpr char kForeignProcess[] = "/proc/1/cmdline";
constexpr useconds_t kPollMicroseconds = 1'000;

constexpr char kNullDevice[] = "/dev/null";

/// The answer in polkit's `reply`, of the type (bba{ss}).
OSStatus ReadAnswer(sd_bus_message* reply, bool mayInteract) {
  int isAuthorized = 0;
  int isChallenge = 0;
  if (sd_bus_message_enter_container(reply, 'r', "bba{ss}") <= 0 ||
      sd_bus_message_read(reply, "bb", &isAuthorized, &isChallenge) <= 0 ||
      sd_bus_message_enter_container(reply, 'a', "{ss}") < 0) {
    return errAuthorizationInternal;
  }
  if (isAuthorized != 0) {
    return errAuthorizationSuccess;
  }
  const char* key = nullptr;
  const char* value = nullptr;
  while (sd_bus_message_read(reply, "{ss}", &key, &value) > 0) {
    if (strcmp(key, "polkit.dismissed") == 0) {
      return errAuthorizationCanceled;
    }
  }
  return isChallenge != 0 && !mayInteract ? errAuthorizationInteractionNotAllowed
                                          : errAuthorizationDenied;
}

/// Asks polkit whether the calling process may do `action`. The process is named by its connection,
/// which, unlike a process id, cannot become another's meanwhile.
OSStatus AskPolkit(const char* action, bool mayInteract) {
  int error = 0;
  const BusConnection bus = OpenSystemBus(error);
  const char* name = nullptr;
  if (bus == nullptr || sd_bus_get_unique_name(bus.get(), &name) < 0) {
    return errAuthorizationInternal;
  }
  if (mayInteract) {
    sd_bus_set_method_call_timeout(bus.get(), kInteractionMicroseconds);
  }
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call_method(bus.get(), kPolkitService, kPolkitObject, kPolkitInterface,
                                        "CheckAuthorization", nullptr, &reply, "(sa{sv})sa{ss}us",
                                        "system-bus-name", 1, "name", "s", name, action, 0,
                                        mayInteract ? kAllowUserInteraction : 0, "");
  const BusMessage owner(reply);
  return result < 0 ? OSStatus{errAuthorizationInternal} : ReadAnswer(reply, mayInteract);
}

/// A pipe whose ends are not standard streams and are closed on exec. Both are -1 on failure.
struct Pipe {
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == 0) {
      readEnd = AboveStandardStreams(ends[0]);
      writeEnd = AboveStandardStreams(ends[1]);
    }
  }
  ~Pipe() {
    Close(readEnd);
    Close(writeEnd);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  bool IsOpen() const { return readEnd >= 0 && writeEnd >= 0; }
  void CloseWriteEnd() { Close(writeEnd); }
  /// Passes the read end to `stream`, which then owns it.
  OSStatus OpenReadEnd(FILE** stream) {
    *stream = fdopen(readEnd, "r");
    if (*stream == nullptr) {
      return errAuthorizationInternal;
    }
    readEnd = -1;
    return errAuthorizationSuccess;
  }

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

/// Puts /dev/null in the place of each standard stream that is closed, so that the tool's first
/// file does not become one, and of the standard input in any case.
bool FillStandardStreams() {
  int null = -1;
  do {
    null = open(kNullDevice, O_RDWR);
  } while (null >= 0 && null <= STDERR_FILENO);
  return null >= 0 && dup2(null, STDIN_FILENO) >= 0;
}

/// The program that a child executes, prepared before fork(2). Both arrays end with a null pointer.
struct Command {
  std::vector<char*> arguments;
  std::vector<char*> environment;
  bool isPkexec;
  bool hasOutput;
};

/// In the child: as at the start of a program, every signal has its default action and none is
/// blocked.
void ResetSignals() {
  for (int each = 1; each < NSIG; ++each) {
    (void)signal(each, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// In the child: leaves only the standard streams to the program.
bool PrepareFiles(bool hasOutput, const Pipe& output) {
  return FillStandardStreams() && (!hasOutput || dup2(output.writeEnd, STDOUT_FILENO) >= 0) &&
         close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0;
}

/// In the child, where only async-signal-safe functions may be called: becomes the program. Does
/// not return: writes errno to the status pipe when it fails.
[[noreturn]] void ExecuteInChild(const Command& command, const Pipe& output, const Pipe& status) {
  ResetSignals();
  if (PrepareFiles(command.hasOutput, output)) {
    if (command.isPkexec) {
      // It stays open until pkexec becomes the tool, or ends.
      fcntl(status.writeEnd, F_SETFD, 0);
    }
    execve(command.arguments[0], command.arguments.data(), command.environment.data());
  }
  const int error = errno;
  (void)Uninterrupted([&] { return write(status.writeEnd, &error, sizeof(error)); });
  _exit(127);
}

/// Waits until the child has become its program, or pkexec the tool. Returns 0, or the errno with
/// which the child failed.
int AwaitExecution(const Pipe& status) {
  int error = 0;
  const ssize_t length = Uninterrupted([&] { return read(status.readEnd, &error, sizeof(error)); });
  return length == sizeof(error) ? error : 0;
}

int AwaitExit(pid_t child) {
  int status = 0;
  (void)Uninterrupted([&] { return waitpid(child, &status, 0); });
  return status;
}

/// The start of a file of /proc/PID, up to `end`; empty when there is none.
std::string ReadStart(pid_t pid, const char* file, char end) {
  std::ifstream stream("/proc/" + std::to_string(pid) + "/" + file);
  std::string start;
  std::getline(stream, start, end);
  return start;
}

/// Whether the child, which has closed its status pipe, has become the tool. Otherwise it is still
/// pkexec, which was refused and is ending. The pipe is closed in the middle of exec and of exit,
/// so this waits until it shows which of the two it was. A process that has ended keeps its name
/// until it is waited for; if the caller ignores SIGCHLD, the name is lost at once.
bool BecameTool(pid_t child) {
  for (;;) {
    const std::string program = ReadStart(child, "cmdline", '\0');
    if (!program.empty() && program != kPkexec) {
      return true;
    }
    siginfo_t ended = {};
    if (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) != 0) {
      return false;
    }
    if (ended.si_pid == child) {
      return ReadStart(child, "comm", '\n') != kPkexecName;
    }
    usleep(kPollMicroseconds);
  }
}

void* ReapChild(void* argument) {
  const std::unique_ptr<pid_t> child(static_cast<pid_t*>(argument));
  AwaitExit(*child);
  return nullptr;
}

/// Waits for the child in a thread of its own, so that it does not stay a zombie.
void ReapInBackground(pid_t child) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::unique_ptr<pid_t> argument(new pid_t(child));
  pthread_t thread;
  if (pthread_create(&thread, nullptr, ReapChild, argument.get()) == 0) {
    // Owned by the thread now.
    (void)argument.release();
    pthread_detach(thread);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

/// Whether pkexec can be used: 0, or why not. pkexec itself would ask the user in any case.
OSStatus CheckPkexec(bool mayInteract) {
  if (access(kForeignProcess, R_OK) != 0) {
    return errAuthorizationToolEnvironmentError;  // Whether pkexec becomes the tool could not be
                                                  // seen.
  }
  return mayInteract ? OSStatus{errAuthorizationSuccess} : AskPolkit(kExecute, false);
}

/// The command line: the tool, or pkexec with the tool's absolute path, because pkexec would look a
/// relative one up in its own list of folders. With pkexec, empty when there is no such tool.
std::vector<std::string> CommandLine(const char* tool, char* const* arguments, bool isPkexec) {
  std::vector<std::string> line;
  if (isPkexec) {
    char absolute[PATH_MAX];
    if (realpath(tool, absolute) == nullptr) {
      return line;
    }
    line.insert(line.end(), {kPkexec, kKeepFolder, absolute});
  } else {
    line.push_back(tool);
  }
  for (; arguments != nullptr && *arguments != nullptr; ++arguments) {
    line.push_back(*arguments);
  }
  return line;
}

/// fork(2), with all signals blocked in the child, which must not run the caller's handlers.
pid_t ForkBlocked() {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t child = fork();
  if (child != 0) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  return child;
}

/// The environment of what is executed. pkexec makes one of its own for the tool; a tool that the
/// superuser runs directly gets only the trusted variables.
std::vector<char*> ToolEnvironment(bool isPkexec) {
  std::vector<char*> environment;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    environment.push_back(*variable);
  }
  environment.push_back(nullptr);
  if (!isPkexec) {
    RemoveUntrustedVariables(environment.data());
  }
  return environment;
}

/// Waits until the tool runs, or reports why it does not.
OSStatus AwaitTool(pid_t child, const Pipe& status, bool isPkexec) {
  if (AwaitExecution(status) != 0) {
    AwaitExit(child);
    return errAuthorizationToolExecuteFailure;
  }
  if (isPkexec && !BecameTool(child)) {
    const int ended = AwaitExit(child);
    return WIFEXITED(ended) && WEXITSTATUS(ended) == kPkexecDismissed ? errAuthorizationCanceled
                                                                      : errAuthorizationDenied;
  }
  ReapInBackground(child);
  return errAuthorizationSuccess;
}

/// Starts the command `line`. `communicationsPipe`, unless it is null, receives a stream of its
/// output.
OSStatus Start(std::vector<std::string>& line, bool isPkexec, FILE** communicationsPipe) {
  Command command = {{}, ToolEnvironment(isPkexec), isPkexec, communicationsPipe != nullptr};
  for (std::string& each : line) {
    command.arguments.push_back(each.data());
  }
  command.arguments.push_back(nullptr);
  Pipe output;
  Pipe status;
  const pid_t child = output.IsOpen() && status.IsOpen() ? ForkBlocked() : -1;
  if (child < 0) {
    return errAuthorizationInternal;
  }
  if (child == 0) {
    ExecuteInChild(command, output, status);
  }
  output.CloseWriteEnd();
  status.CloseWriteEnd();
  const OSStatus result = AwaitTool(child, status, isPkexec);
  return result == errAuthorizationSuccess && communicationsPipe != nullptr
             ? output.OpenReadEnd(communicationsPipe)
             : result;
}

}  // namespace

OSStatus AuthorizationCreate(const AuthorizationRights* rights,
                             const AuthorizationEnvironment* /*environment*/,
                             AuthorizationFlags flags, AuthorizationRef* authorization) {
  *authorization = nullptr;
  const bool mayInteract = (flags & kAuthorizationFlagInteractionAllowed) != 0;
  if (rights != nullptr && rights->count > 0 && geteuid() != 0) {
    const OSStatus status = AskPolkit(kManageUnits, mayInteract);
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
  if (options != kAuthorizationFlagDefaults) {
    return errAuthorizationInvalidFlags;
  }
  const bool isPkexec = geteuid() != 0;
  std::vector<std::string> line = CommandLine(pathToTool, arguments, isPkexec);
  if (line.empty()) {
    return errAuthorizationToolExecuteFailure;
  }
  if (isPkexec) {
    const OSStatus refusal = CheckPkexec(ObjectOf(authorization)->mayInteract);
    if (refusal != errAuthorizationSuccess) {
      return refusal;
    }
  }
  return Start(line, isPkexec, communicationsPipe);
}
