#include <Security/Authorization.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
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
constexpr useconds_t kPollMicroseconds = 10'000;

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

/// A pipe from the tool, or none. Its ends are not standard streams and are closed on exec.
class OutputPipe {
 public:
  OutputPipe() = default;
  ~OutputPipe() {
    if (writeEnd_ >= 0) {
      close(writeEnd_);
    }
    if (stream_ != nullptr) {
      (void)fclose(stream_);
    }
  }
  OutputPipe(const OutputPipe&) = delete;
  OutputPipe& operator=(const OutputPipe&) = delete;

  bool Open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      return false;
    }
    const int readEnd = AboveStandardStreams(ends[0]);
    writeEnd_ = AboveStandardStreams(ends[1]);
    stream_ = fdopen(readEnd, "r");
    if (stream_ == nullptr && readEnd >= 0) {
      close(readEnd);
    }
    return writeEnd_ >= 0 && stream_ != nullptr;
  }
  /// -1 without a pipe.
  int WriteEnd() const { return writeEnd_; }
  /// Passes the stream of the read end to the caller.
  FILE* TakeStream() { return std::exchange(stream_, nullptr); }

 private:
  static int AboveStandardStreams(int file) {
    if (file > STDERR_FILENO) {
      return file;
    }
    const int moved = fcntl(file, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(file);
    return moved;
  }

  FILE* stream_ = nullptr;
  int writeEnd_ = -1;
};

/// How posix_spawn(3) starts a program: as if by the system itself, with every signal at its
/// default action and none blocked, and with no files except the standard streams.
class Launch {
 public:
  Launch() {
    posix_spawnattr_init(&attributes_);
    posix_spawn_file_actions_init(&files_);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
    // Not sigfillset(3), which leaves out two that posix_spawn would then make ignored.
    memset(&signals, 0xFF, sizeof(signals));
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~Launch() {
    posix_spawn_file_actions_destroy(&files_);
    posix_spawnattr_destroy(&attributes_);
  }
  Launch(const Launch&) = delete;
  Launch& operator=(const Launch&) = delete;

  /// Gives the program `output` as its standard output, or the caller's if that is -1. /dev/null
  /// takes the place of the standard input and of each other stream that the caller has closed, so
  /// that the program's first file does not become one. False when memory is exhausted.
  bool SetStreams(int output) {
    int error = output < 0 ? 0 : posix_spawn_file_actions_adddup2(&files_, output, STDOUT_FILENO);
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO && error == 0; ++stream) {
      const bool isSet = stream == STDOUT_FILENO && output >= 0;
      if (stream == STDIN_FILENO || (!isSet && fcntl(stream, F_GETFD) < 0)) {
        error = posix_spawn_file_actions_addopen(&files_, stream, kNullDevice, O_RDWR, 0);
      }
    }
    return error == 0 && posix_spawn_file_actions_addclosefrom_np(&files_, STDERR_FILENO + 1) == 0;
  }

  /// Starts the program `arguments[0]`. Both arrays end with a null pointer. Returns 0 once it has
  /// been executed, or an errno value.
  int Start(pid_t& child, char* const* arguments, char* const* environment) const {
    return posix_spawn(&child, arguments[0], &files_, &attributes_, arguments, environment);
  }

 private:
  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t files_;
};

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

/// Waits until the child, pkexec, has become the tool or has ended. Returns whether it has become
/// the tool. A process that has ended keeps its name until it is waited for; if the caller ignores
/// SIGCHLD, the name is lost at once.
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

/// Waits for the child in a thread of its own, so that it does not stay a zombie.
void ReapInBackground(pid_t child) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread(AwaitExit, child).detach();
  } catch (const std::system_error&) {  // No thread can be made: it stays one.
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
/// relative one up in its own list of folders. With pkexec, empty when the tool does not exist.
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

/// Starts the command `line`. `communicationsPipe`, unless it is null, receives a stream of its
/// output.
OSStatus Start(std::vector<std::string>& line, bool isPkexec, FILE** communicationsPipe) {
  std::vector<char*> arguments;
  arguments.reserve(line.size() + 1);
  for (std::string& each : line) {
    arguments.push_back(each.data());
  }
  arguments.push_back(nullptr);
  OutputPipe output;
  if (communicationsPipe != nullptr && !output.Open()) {
    return errAuthorizationInternal;
  }
  Launch launch;
  if (!launch.SetStreams(output.WriteEnd())) {
    return errAuthorizationInternal;
  }
  pid_t child = 0;
  if (launch.Start(child, arguments.data(), ToolEnvironment(isPkexec).data()) != 0) {
    return errAuthorizationToolExecuteFailure;
  }
  if (isPkexec && !BecameTool(child)) {
    const int ended = AwaitExit(child);
    return WIFEXITED(ended) && WEXITSTATUS(ended) == kPkexecDismissed ? errAuthorizationCanceled
                                                                      : errAuthorizationDenied;
  }
  ReapInBackground(child);
  if (communicationsPipe != nullptr) {
    *communicationsPipe = output.TakeStream();
  }
  return errAuthorizationSuccess;
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
