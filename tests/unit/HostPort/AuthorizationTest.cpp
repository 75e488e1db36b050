#include <Security/Authorization.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tests/unit/HostPort/FakeSystemBus.h"
#include "tests/unit/support/TemporaryFolder.h"

// ---- The effective user, /proc and pkexec, as a test sets them

static uid_t s_user;

extern "C" uid_t geteuid() { return s_user; }

/// Whether /proc hides the processes of others.
static bool s_isHidden;

extern "C" int access(const char* path, int mode) {
  if (s_isHidden && strcmp(path, "/proc/1/cmdline") == 0) {
    errno = ENOENT;
    return -1;
  }
  return static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
}

extern "C" int posix_spawn(pid_t* child, const char* path,
                           const posix_spawn_file_actions_t* fileActions,
                           const posix_spawnattr_t* attributes, char* const* arguments,
                           char* const* environment) {
  static const auto s_posixSpawn =
      reinterpret_cast<decltype(&posix_spawn)>(dlsym(RTLD_NEXT, "posix_spawn"));
  const char* program = strcmp(path, "/usr/bin/pkexec") == 0 ? KP_FAKE_PKEXEC_PROGRAM : path;
  return s_posixSpawn(child, program, fileActions, attributes, arguments, environment);
}

namespace {

constexpr uid_t kOrdinaryUser = 65534;

AuthorizationItem right = {"com.example.right", 0, nullptr, 0};
const AuthorizationRights rights = {1, &right};

/// The effective user of a scope.
class ScopedUser {
 public:
  explicit ScopedUser(uid_t user) { s_user = user; }
  ~ScopedUser() { s_user = 0; }
  ScopedUser(const ScopedUser&) = delete;
  ScopedUser& operator=(const ScopedUser&) = delete;
};

/// Whether a child of the test is left, running or not. Waits up to a minute for the last to go.
bool HasChildren() {
  for (int i = 0; i < 6000; ++i) {
    siginfo_t info = {};
    if (waitid(P_ALL, 0, &info, WEXITED | WNOWAIT | WNOHANG) != 0) {
      return false;
    }
    usleep(10'000);
  }
  return true;
}

/// Closes standard streams of the test: bit 0 of `closed` stands for the input, and so on.
class ClosedStreams {
 public:
  explicit ClosedStreams(unsigned int closed) {
    (void)fflush(stdout);
    for (int stream = 0; stream < 3; ++stream) {
      saved_[stream] = fcntl(stream, F_DUPFD_CLOEXEC, 100);
    }
    for (int stream = 0; stream < 3; ++stream) {
      if ((closed >> static_cast<unsigned int>(stream) & 1U) != 0) {
        close(stream);
      }
    }
  }
  ClosedStreams(const ClosedStreams&) = delete;
  ClosedStreams& operator=(const ClosedStreams&) = delete;

  void Restore() const {
    for (int stream = 0; stream < 3; ++stream) {
      dup2(saved_[stream], stream);
      close(saved_[stream]);
    }
  }

 private:
  int saved_[3];
};

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// The variables that a tool of the superuser's may see.
#ifdef KP_INSTRUMENTED
#define KP_TRUSTED_VARIABLE \
  "^(HOME|LANG|LANGUAGE|LC_[A-Z]+|LOGNAME|PATH|TMPDIR|TZ|USER|[A-Z]+_OPTIONS|LLVM_PROFILE_FILE)="
#else
#define KP_TRUSTED_VARIABLE "^(HOME|LANG|LANGUAGE|LC_[A-Z]+|LOGNAME|PATH|TMPDIR|TZ|USER)="
#endif

class AuthorizationTest : public testing::Test {
 protected:
  void SetUp() override {
    // No real bus is asked.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    unsetenv("KP_FAKE_PKEXEC");
    ASSERT_EQ(0, AuthorizationCreate(&rights, nullptr, 19, &authorization_));
  }
  void TearDown() override {
    if (authorization_ != nullptr) {
      EXPECT_EQ(0, AuthorizationFree(authorization_, kAuthorizationFlagDefaults));
    }
    EXPECT_FALSE(HasChildren());
  }

  /// Runs a tool and returns its output; "(refused)" when it could not be started.
  std::string Run(const char* tool, std::vector<std::string> texts) {
    std::vector<char*> arguments;
    for (std::string& text : texts) {
      arguments.push_back(&text[0]);
    }
    arguments.push_back(nullptr);
    FILE* pipe = nullptr;
    status_ = AuthorizationExecuteWithPrivileges(authorization_, tool, 0, arguments.data(), &pipe);
    return status_ == errAuthorizationSuccess ? ReadAll(pipe) : "(refused)";
  }
  /// Runs /bin/sh with `script` and returns its output.
  std::string RunShell(const std::string& script) { return Run("/bin/sh", {"-c", script}); }
  static std::string ReadAll(FILE* pipe) {
    std::string text;
    for (int byte = getc(pipe); byte != EOF; byte = getc(pipe)) {
      text += static_cast<char>(byte);
    }
    EXPECT_EQ(0, fclose(pipe));
    return text;
  }

  AuthorizationRef authorization_ = nullptr;
  OSStatus status_ = errAuthorizationSuccess;
};

TEST_F(AuthorizationTest, FlagsHaveTheirSystemsValues) {
  EXPECT_EQ(19, kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights |
                    kAuthorizationFlagPreAuthorize);
}

TEST_F(AuthorizationTest, FaultyCallsAreRefused) {
  EXPECT_EQ(errAuthorizationInvalidRef, AuthorizationFree(nullptr, 0));
  char* none[] = {nullptr};
  FILE* pipe = nullptr;
  EXPECT_EQ(errAuthorizationInvalidFlags,
            AuthorizationExecuteWithPrivileges(authorization_, "/bin/true", 1, none, &pipe));
  EXPECT_EQ(nullptr, pipe);
}

TEST_F(AuthorizationTest, WithoutABusAnOrdinaryUserIsNotAuthorized) {
  const ScopedUser user(kOrdinaryUser);
  AuthorizationRef other = authorization_;
  EXPECT_EQ(errAuthorizationInternal, AuthorizationCreate(&rights, nullptr, 19, &other));
  EXPECT_EQ(nullptr, other);
}

TEST_F(AuthorizationTest, AnObjectWithoutRightsNeedsNobody) {
  const ScopedUser user(kOrdinaryUser);
  AuthorizationRef other = nullptr;
  EXPECT_EQ(0, AuthorizationCreate(nullptr, nullptr, 0, &other));
  EXPECT_EQ(0, AuthorizationFree(other, 0));
}

TEST_F(AuthorizationTest, OutputIsAPipeAndInputIsEmpty) {
  EXPECT_EQ("hello\n0\n", RunShell("echo hello; wc -c"));
}

TEST_F(AuthorizationTest, ToolIsItsOwnFirstArgumentAndNothingIsInterpreted) {
  const TemporaryFolder folder;
  const std::string script = folder / "tool";
  WriteWholeFile(script, "#!/bin/sh\nprintf '%s|' \"$@\"\n");
  ASSERT_EQ(0, chmod(script.c_str(), 0700));
  std::string texts[] = {"a b", "", "$HOME", "%n", ";id", "*", "\"'\\", "-x"};
  char* arguments[9] = {};
  for (size_t i = 0; i < 8; ++i) {
    arguments[i] = &texts[i][0];
  }
  FILE* pipe = nullptr;
  ASSERT_EQ(
      0, AuthorizationExecuteWithPrivileges(authorization_, script.c_str(), 0, arguments, &pipe));
  EXPECT_EQ("a b||$HOME|%n|;id|*|\"'\\|-x|", ReadAll(pipe));
}

TEST_F(AuthorizationTest, WhatCannotBeExecutedIsRefused) {
  const TemporaryFolder folder;
  WriteWholeFile(folder / "data", "x");
  for (const std::string& tool :
       {folder / "missing", folder / "data", std::string("sh"), std::string(), folder.Path()}) {
    FILE* pipe = nullptr;
    EXPECT_EQ(errAuthorizationToolExecuteFailure,
              AuthorizationExecuteWithPrivileges(authorization_, tool.c_str(), 0, nullptr, &pipe))
        << tool;
    EXPECT_EQ(nullptr, pipe);
  }
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
}

/// The number of open files of the process.
size_t OpenFiles() {
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(files), end(files)));
}

TEST_F(AuthorizationTest, WithoutRoomForThePipeNothingRunsOrStaysOpen) {
  rlimit before = {};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  const size_t openBefore = OpenFiles();
  const int firstFree = dup(STDERR_FILENO);
  close(firstFree);
  // The pipe takes two files.
  for (rlim_t room = 0; room < 2; ++room) {
    const rlimit narrow = {static_cast<rlim_t>(firstFree) + room, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &narrow));
    const std::string output = RunShell("echo ran");
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_EQ("(refused)", output) << room;
    EXPECT_EQ(errAuthorizationInternal, status_) << room;
    EXPECT_EQ(openBefore, OpenFiles()) << room;
  }
  EXPECT_EQ("ran\n", RunShell("echo ran"));
  EXPECT_EQ(openBefore, OpenFiles());
}

TEST_F(AuthorizationTest, NoFileAndNoSignalSettingIsPassedOn) {
  const int leaked = open("/dev/null", O_RDONLY);
  ASSERT_EQ(100, dup2(leaked, 100));
  close(leaked);
  signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigprocmask(SIG_BLOCK, &blocked, &before);
  const std::string files = Run("/bin/ls", {"/proc/self/fd"});
  const std::string signals = Run("/bin/grep", {"-E", "SigBlk|SigIgn", "/proc/self/status"});
  sigset_t after;
  sigprocmask(SIG_SETMASK, &before, &after);
  signal(SIGUSR1, SIG_DFL);
  close(100);
  EXPECT_EQ("0\n1\n2\n3\n", files) << "3 is the folder that is read";
  EXPECT_EQ("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n", signals);
  EXPECT_EQ(1, sigismember(&after, SIGUSR2)) << "the caller's own are as they were";
  EXPECT_EQ(0, sigismember(&after, SIGTERM));
}

TEST_F(AuthorizationTest, EachStandardStreamThatIsClosedIsTheNullDevice) {
  const TemporaryFolder folder;
  const std::string path = folder / "streams";
  // All streams are looked up before the shell redirects its output.
  const std::string script =
      "for i in 0 1 2; do all=\"$all$(readlink /proc/$$/fd/$i || echo closed)\n\"; done;"
      "printf \"$all\" >" +
      path;
  const std::string standardOutput = std::filesystem::read_symlink("/proc/self/fd/1");
  const std::string standardError = std::filesystem::read_symlink("/proc/self/fd/2");
  for (unsigned int closed = 0; closed < 8; ++closed) {
    for (const bool hasPipe : {false, true}) {
      const ClosedStreams streams(closed);
      std::string line = script;
      char option[] = "-c";
      char* arguments[] = {option, line.data(), nullptr};
      FILE* pipe = nullptr;
      status_ = AuthorizationExecuteWithPrivileges(authorization_, "/bin/sh", 0, arguments,
                                                   hasPipe ? &pipe : nullptr);
      if (pipe != nullptr) {
        (void)ReadAll(pipe);
      }
      (void)HasChildren();
      streams.Restore();
      ASSERT_EQ(errAuthorizationSuccess, status_);
      const std::vector<std::string> seen = Lines(ReadWholeFile(path));
      ASSERT_EQ(3u, seen.size());
      EXPECT_EQ("/dev/null", seen[0]);
      if (hasPipe) {
        EXPECT_EQ(0u, seen[1].find("pipe:")) << closed << seen[1];
        EXPECT_NE(standardOutput, seen[1]) << closed;
      } else {
        EXPECT_EQ((closed & 2U) != 0 ? "/dev/null" : standardOutput, seen[1]) << closed;
      }
      EXPECT_EQ((closed & 4U) != 0 ? "/dev/null" : standardError, seen[2]) << closed;
    }
  }
}

TEST_F(AuthorizationTest, OnlyTrustedVariablesArePassedOnByTheSuperuser) {
  setenv("OPENSSL_CONF", "/nonexistent", 1);
  setenv("LC_TIME", "C", 1);
  const std::string asRoot = Run("/usr/bin/env", {});
  s_user = kOrdinaryUser;
  const std::string withPkexec = Run("/usr/bin/env", {});
  s_user = 0;
  unsetenv("OPENSSL_CONF");
  unsetenv("LC_TIME");
  EXPECT_THAT(Lines(asRoot), testing::Contains("LC_TIME=C"));
  for (const std::string& variable : Lines(asRoot)) {
    EXPECT_THAT(variable, testing::ContainsRegex(KP_TRUSTED_VARIABLE));
  }
  // pkexec itself leaves its caller's variables out.
  EXPECT_THAT(Lines(withPkexec), testing::Contains("OPENSSL_CONF=/nonexistent"));
}

TEST_F(AuthorizationTest, NoZombieIsLeft) {
  EXPECT_EQ("x\n", RunShell("echo x"));
  EXPECT_FALSE(HasChildren());
}

TEST_F(AuthorizationTest, WithoutAPipeTheStandardOutputIsShared) {
  const TemporaryFolder folder;
  const std::string path = folder / "output";
  const int saved = dup(STDOUT_FILENO);
  const int file = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
  fflush(stdout);
  dup2(file, STDOUT_FILENO);
  char word[] = "shared";
  char* arguments[] = {word, nullptr};
  EXPECT_EQ(0,
            AuthorizationExecuteWithPrivileges(authorization_, "/bin/echo", 0, arguments, nullptr));
  dup2(saved, STDOUT_FILENO);
  close(saved);
  close(file);
  for (int i = 0; i < 6000 && ReadWholeFile(path).empty(); ++i) {
    usleep(10'000);
  }
  EXPECT_EQ("shared\n", ReadWholeFile(path));
}

// ---- polkit

class PolkitTest : public AuthorizationTest {
 protected:
  /// The result for an ordinary user when polkit replies with these values.
  OSStatus Ask(int isAuthorized, int isChallenge, const char* detail, AuthorizationFlags flags) {
    const FakeSystemBus bus([=](sd_bus_message* call) {
      return detail == nullptr
                 ? sd_bus_reply_method_return(call, "(bba{ss})", isAuthorized, isChallenge, 0)
                 : sd_bus_reply_method_return(call, "(bba{ss})", isAuthorized, isChallenge, 2,
                                              "polkit.other", "true", detail, "true");
    });
    const ScopedUser user(kOrdinaryUser);
    AuthorizationRef other = authorization_;
    const OSStatus status = AuthorizationCreate(&rights, nullptr, flags, &other);
    EXPECT_EQ(status == errAuthorizationSuccess, other != nullptr);
    if (other != nullptr) {
      AuthorizationFree(other, 0);
    }
    calls_ = bus.calls();
    return status;
  }

  std::vector<FakeSystemBus::Call> calls_;
};

TEST_F(PolkitTest, IsAskedAboutTheCallersConnection) {
  EXPECT_EQ(errAuthorizationSuccess, Ask(1, 0, nullptr, 19));
  ASSERT_EQ(1u, calls_.size());
  EXPECT_EQ("CheckAuthorization", calls_[0].name);
  EXPECT_NE(std::string::npos,
            calls_[0].text.find("STRUCT \"sa{sv}\" { STRING \"system-bus-name\"; ARRAY \"{sv}\" { "
                                "DICT_ENTRY \"sv\" { STRING \"name\"; VARIANT \"s\" { STRING "
                                "\":1.1\"; }; }; }; }; STRING "
                                "\"org.freedesktop.systemd1.manage-units\"; ARRAY \"{ss}\" { }; "
                                "UINT32 1; STRING \"\";"))
      << calls_[0].text;
  EXPECT_EQ(300'000'000u, calls_[0].timeLimit);
  EXPECT_EQ(errAuthorizationSuccess, Ask(1, 0, nullptr, kAuthorizationFlagExtendRights));
  EXPECT_NE(std::string::npos, calls_[0].text.find("UINT32 0;")) << "the user must not be asked";
  EXPECT_EQ(25'000'000u, calls_[0].timeLimit);
}

TEST_F(PolkitTest, RefusalsAreDistinguished) {
  EXPECT_EQ(errAuthorizationDenied, Ask(0, 0, nullptr, 19));
  EXPECT_EQ(errAuthorizationDenied, Ask(0, 0, nullptr, 0));
  EXPECT_EQ(errAuthorizationDenied, Ask(0, 1, nullptr, 19)) << "no agent can ask the user";
  EXPECT_EQ(errAuthorizationInteractionNotAllowed, Ask(0, 1, nullptr, 0));
  EXPECT_EQ(errAuthorizationCanceled, Ask(0, 0, "polkit.dismissed", 19));
  EXPECT_EQ(errAuthorizationDenied, Ask(0, 0, "polkit.another", 19));
}

TEST_F(PolkitTest, FailuresAreNoAuthorization) {
  for (const FakeSystemBus::Answer& answer : {
           FakeSystemBus::Answer([](sd_bus_message* call) {
             return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_SERVICE_UNKNOWN, "no polkit");
           }),
           FakeSystemBus::Answer(
               [](sd_bus_message* call) { return sd_bus_reply_method_return(call, "s", "yes"); }),
           FakeSystemBus::Answer(
               [](sd_bus_message* call) { return sd_bus_reply_method_return(call, ""); }),
           FakeSystemBus::Answer([](sd_bus_message*) { return -ECONNRESET; }),
       }) {
    const FakeSystemBus bus(answer);
    const ScopedUser user(kOrdinaryUser);
    AuthorizationRef other = authorization_;
    EXPECT_EQ(errAuthorizationInternal, AuthorizationCreate(&rights, nullptr, 19, &other));
    EXPECT_EQ(nullptr, other);
  }
}

TEST_F(PolkitTest, ABusThatAcceptsNoConnectionIsNoAuthorization) {
  const SilentSystemBus bus;
  const ScopedBusTimeLimit limit(100'000);
  const ScopedUser user(kOrdinaryUser);
  AuthorizationRef other = authorization_;
  EXPECT_EQ(errAuthorizationInternal, AuthorizationCreate(&rights, nullptr, 19, &other));
  EXPECT_EQ(nullptr, other);
}

TEST_F(PolkitTest, TheSuperuserIsNotAskedAbout) {
  const FakeSystemBus bus([](sd_bus_message*) { return -ECONNRESET; });
  AuthorizationRef other = nullptr;
  EXPECT_EQ(0, AuthorizationCreate(&rights, nullptr, 19, &other));
  EXPECT_EQ(0, AuthorizationFree(other, 0));
  EXPECT_EQ(0u, bus.calls().size());
}

// ---- pkexec

class PkexecTest : public AuthorizationTest {
 protected:
  void SetUp() override {
    AuthorizationTest::SetUp();
    s_user = kOrdinaryUser;
  }
  void TearDown() override {
    s_user = 0;
    AuthorizationTest::TearDown();
  }
};

TEST_F(PkexecTest, BecomesTheTool) {
  EXPECT_EQ("a b||$HOME|", Run("/usr/bin/printf", {"%s|", "a b", "", "$HOME"}));
}

TEST_F(PkexecTest, ARelativePathIsMadeAbsolute) {
  const TemporaryFolder folder;
  const std::string before = std::filesystem::current_path();
  std::filesystem::create_symlink("/bin/echo", folder / "tool");
  ASSERT_EQ(0, chdir(folder.Path().c_str()));
  const std::string text = Run("./tool", {"x"});
  const std::string missing = Run("./missing", {});
  ASSERT_EQ(0, chdir(before.c_str()));
  EXPECT_EQ("x\n", text);
  EXPECT_EQ("(refused)", missing);
  EXPECT_EQ(errAuthorizationToolExecuteFailure, status_);
}

TEST_F(PkexecTest, RefusalsAreDistinguished) {
  setenv("KP_FAKE_PKEXEC", "refuse", 1);
  EXPECT_EQ("(refused)", Run("/bin/echo", {}));
  EXPECT_EQ(errAuthorizationDenied, status_);
  setenv("KP_FAKE_PKEXEC", "dismiss", 1);
  EXPECT_EQ("(refused)", Run("/bin/echo", {}));
  EXPECT_EQ(errAuthorizationCanceled, status_);
}

TEST_F(PkexecTest, AToolThatEndsAtOnceHasRunWhateverItsStatus) {
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ("x\n", Run("/bin/echo", {"x"}));
    ASSERT_EQ("", RunShell("exit 127"));
    ASSERT_EQ("", RunShell("exit 126"));
  }
}

TEST_F(PkexecTest, IsNotTriedWhereNobodyCouldTellWhatBecomesOfIt) {
  s_isHidden = true;
  const std::string text = Run("/bin/echo", {"x"});
  s_isHidden = false;
  EXPECT_EQ("(refused)", text);
  EXPECT_EQ(errAuthorizationToolEnvironmentError, status_);
}

TEST_F(PkexecTest, ARefusalIsNeverTakenForATool) {
  setenv("KP_FAKE_PKEXEC", "refuse", 1);
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ("(refused)", Run("/bin/echo", {"x"}));
    ASSERT_EQ(errAuthorizationDenied, status_);
  }
}

TEST_F(PkexecTest, AToolThatRunsOnIsNotWaitedFor) {
  char seconds[] = "60";
  char* arguments[] = {seconds, nullptr};
  FILE* pipe = nullptr;
  ASSERT_EQ(0,
            AuthorizationExecuteWithPrivileges(authorization_, "/bin/sleep", 0, arguments, &pipe));
  siginfo_t info = {};
  EXPECT_EQ(0, waitid(P_ALL, 0, &info, WEXITED | WNOWAIT | WNOHANG));
  EXPECT_EQ(0, info.si_pid) << "it runs";
  fclose(pipe);
  const std::string children = "/proc/self/task/" + std::to_string(getpid()) + "/children";
  const pid_t tool = atoi(ReadWholeFile(children).c_str());
  ASSERT_GT(tool, 1);
  EXPECT_EQ(0, kill(tool, SIGKILL));
}

TEST_F(PkexecTest, WithoutInteractionOnlyPolkitIsAsked) {
  for (const int isAuthorized : {0, 1}) {
    const FakeSystemBus bus([isAuthorized](sd_bus_message* call) {
      return sd_bus_reply_method_return(call, "(bba{ss})", isAuthorized, !isAuthorized, 0);
    });
    AuthorizationRef silent = nullptr;
    ASSERT_EQ(0, AuthorizationCreate(nullptr, nullptr, 0, &silent));
    std::swap(silent, authorization_);
    EXPECT_EQ(isAuthorized != 0 ? "x\n" : "(refused)", Run("/bin/echo", {"x"}));
    std::swap(silent, authorization_);
    AuthorizationFree(silent, 0);
    ASSERT_EQ(1u, bus.calls().size());
    EXPECT_NE(std::string::npos,
              bus.calls()[0].text.find("STRING \"org.freedesktop.policykit.exec\"; ARRAY "
                                       "\"{ss}\" { }; UINT32 0;"));
    EXPECT_EQ(isAuthorized != 0 ? errAuthorizationSuccess : errAuthorizationInteractionNotAllowed,
              status_);
  }
}

}  // namespace
