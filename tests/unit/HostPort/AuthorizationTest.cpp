#include <Security/Authorization.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/unit/support/TemporaryFolder.h"

namespace {

AuthorizationItem right = {"com.example.right", 0, nullptr, 0};
const AuthorizationRights rights = {1, &right};

/// The effective user of a scope.
class ScopedUser {
 public:
  explicit ScopedUser(uid_t user) { EXPECT_EQ(0, seteuid(user)); }
  ~ScopedUser() { EXPECT_EQ(0, seteuid(0)); }
  ScopedUser(const ScopedUser&) = delete;
  ScopedUser& operator=(const ScopedUser&) = delete;
};

class AuthorizationTest : public testing::Test {
 protected:
  void SetUp() override {
    // Nobody's bus is asked.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    if (geteuid() != 0) {
      GTEST_SKIP() << "authorization without a bus needs root";
    }
    ASSERT_EQ(0, AuthorizationCreate(&rights, nullptr, 19, &authorization_));
  }
  void TearDown() override {
    if (authorization_ != nullptr) {
      EXPECT_EQ(0, AuthorizationFree(authorization_, kAuthorizationFlagDefaults));
    }
  }

  /// Runs /bin/sh with `script` and gives what it printed.
  std::string RunShell(std::string script) {
    char option[] = "-c";
    char* arguments[] = {option, &script[0], nullptr};
    FILE* pipe = nullptr;
    EXPECT_EQ(0,
              AuthorizationExecuteWithPrivileges(authorization_, "/bin/sh", 0, arguments, &pipe));
    return ReadAll(pipe);
  }
  static std::string ReadAll(FILE* pipe) {
    std::string text;
    for (int byte = getc(pipe); byte != EOF; byte = getc(pipe)) {
      text += static_cast<char>(byte);
    }
    EXPECT_EQ(0, fclose(pipe));
    return text;
  }

  AuthorizationRef authorization_ = nullptr;
};

TEST_F(AuthorizationTest, FlagsHaveTheirSystemsValues) {
  EXPECT_EQ(19, kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights |
                    kAuthorizationFlagPreAuthorize);
}

TEST_F(AuthorizationTest, FaultyCallsAreRefused) {
  AuthorizationRef other = authorization_;
  EXPECT_EQ(errAuthorizationInvalidPointer, AuthorizationCreate(&rights, nullptr, 0, nullptr));
  EXPECT_EQ(errAuthorizationInvalidFlags, AuthorizationCreate(&rights, nullptr, 1 << 9, &other));
  EXPECT_EQ(nullptr, other);
  const AuthorizationRights noItems = {1, nullptr};
  EXPECT_EQ(errAuthorizationInvalidSet, AuthorizationCreate(&noItems, nullptr, 0, &other));
  EXPECT_EQ(errAuthorizationInvalidRef, AuthorizationFree(nullptr, 0));

  char* none[] = {nullptr};
  FILE* pipe = nullptr;
  EXPECT_EQ(errAuthorizationInvalidRef,
            AuthorizationExecuteWithPrivileges(nullptr, "/bin/true", 0, none, &pipe));
  EXPECT_EQ(errAuthorizationInvalidPointer,
            AuthorizationExecuteWithPrivileges(authorization_, nullptr, 0, none, &pipe));
  EXPECT_EQ(errAuthorizationInvalidFlags,
            AuthorizationExecuteWithPrivileges(authorization_, "/bin/true", 1, none, &pipe));
  EXPECT_EQ(nullptr, pipe);
}

TEST_F(AuthorizationTest, WithoutABusAnOrdinaryUserIsNotAuthorized) {
  const ScopedUser user(65534);
  AuthorizationRef other = authorization_;
  EXPECT_EQ(errAuthorizationInternal, AuthorizationCreate(&rights, nullptr, 19, &other));
  EXPECT_EQ(nullptr, other);
}

TEST_F(AuthorizationTest, AnObjectWithoutRightsNeedsNobody) {
  const ScopedUser user(65534);
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
  for (const std::string& tool : {folder / "missing", folder / "data", std::string("sh"),
                                  std::string(), folder.Path().string()}) {
    FILE* pipe = nullptr;
    EXPECT_EQ(errAuthorizationToolExecuteFailure,
              AuthorizationExecuteWithPrivileges(authorization_, tool.c_str(), 0, nullptr, &pipe))
        << tool;
    EXPECT_EQ(nullptr, pipe);
  }
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
}

TEST_F(AuthorizationTest, NoFileAndNoSignalSettingIsPassedOn) {
  ASSERT_EQ(50, dup2(STDERR_FILENO, 50));
  signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigprocmask(SIG_BLOCK, &blocked, &before);
  const std::string status =
      RunShell("[ -e /proc/$$/fd/50 ] && echo leaked; grep -E 'SigBlk|SigIgn' /proc/$$/status");
  sigprocmask(SIG_SETMASK, &before, nullptr);
  signal(SIGUSR1, SIG_DFL);
  close(50);
  EXPECT_EQ("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n", status);
}

TEST_F(AuthorizationTest, StandardStreamsMayBeClosed) {
  const int input = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  const std::string text = RunShell("echo hello; wc -c");
  dup2(input, STDIN_FILENO);
  close(input);
  EXPECT_EQ("hello\n0\n", text);
}

TEST_F(AuthorizationTest, NoZombieIsLeft) {
  EXPECT_EQ("x\n", RunShell("echo x"));
  bool isGone = false;
  for (int i = 0; i < 1000 && !isGone; ++i) {
    usleep(10'000);
    siginfo_t info = {};
    isGone = waitid(P_ALL, 0, &info, WEXITED | WNOWAIT | WNOHANG) == -1;
  }
  EXPECT_TRUE(isGone);
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
  for (int i = 0; i < 1000 && ReadWholeFile(path).empty(); ++i) {
    usleep(10'000);
  }
  EXPECT_EQ("shared\n", ReadWholeFile(path));
}

}  // namespace
