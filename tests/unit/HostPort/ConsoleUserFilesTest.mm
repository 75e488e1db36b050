// SCDynamicStoreCopyConsoleUser over logind's own files, as the real libsystemd reads them.
#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/unit/support/TemporaryFolder.h"
#include "tests/unit/support/Text.h"

namespace {

constexpr int kNoNamespace = 77;

/// Puts an empty file system in place of /run, for this process alone.
bool EnterPrivateRun() {
  const int flags = geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER;
  return unshare(flags) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0;
}

/// Runs in a child: writes the files that are not empty, and writes the console user to `answer`.
[[noreturn]] void AskInPrivateRun(const std::string& seat, const std::string& session, int answer) {
  if (!EnterPrivateRun()) {
    _exit(kNoNamespace);
  }
  std::filesystem::create_directories("/run/systemd/seats");
  std::filesystem::create_directories("/run/systemd/sessions");
  if (!seat.empty()) {
    WriteWholeFile("/run/systemd/seats/seat0", seat);
  }
  if (!session.empty()) {
    WriteWholeFile("/run/systemd/sessions/c1", session);
  }
  const std::string user =
      Text((NSString*)SCDynamicStoreCopyConsoleUser(nullptr, nullptr, nullptr));
  const bool told = write(answer, user.data(), user.size()) == static_cast<ssize_t>(user.size());
  _exit(told ? 0 : 1);
}

/// The console user according to the files; empty when this machine allows no namespaces.
std::string ConsoleUser(const std::string& seat, const std::string& session) {
  int answer[2];
  EXPECT_EQ(0, pipe(answer));
  const pid_t child = fork();
  if (child == 0) {
    AskInPrivateRun(seat, session, answer[1]);
  }
  close(answer[1]);
  char text[256];
  const ssize_t length = read(answer[0], text, sizeof(text));
  close(answer[0]);
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNoNamespace) {
    return "";
  }
  EXPECT_EQ(0, status);
  return std::string(text, static_cast<size_t>(length));
}

constexpr char kSeat[] = "IS_SEAT0=1\nACTIVE=c1\nACTIVE_UID=0\nSESSIONS=c1\nUIDS=0\n";
constexpr char kSession[] =
    "UID=0\nUSER=root\nACTIVE=1\nIS_DISPLAY=1\nSTATE=active\nREMOTE=0\nTYPE=x11\n"
    "ORIGINAL_TYPE=x11\nCLASS=user\nSEAT=seat0\n";
constexpr char kClosingSession[] =
    "UID=0\nUSER=root\nACTIVE=1\nSTATE=closing\nREMOTE=0\nTYPE=x11\nCLASS=user\nSEAT=seat0\n";
constexpr char kGreeterSession[] =
    "UID=0\nUSER=root\nACTIVE=1\nSTATE=active\nREMOTE=0\nTYPE=wayland\nCLASS=greeter\n"
    "SEAT=seat0\n";

TEST(ConsoleUserFiles, OfLogind) {
  const std::string user = ConsoleUser(kSeat, kSession);
  if (user.empty()) {
    GTEST_SKIP() << "needs a mount namespace, which this machine does not allow";
  }
  EXPECT_EQ("root", user);
  EXPECT_EQ("loginwindow", ConsoleUser(kSeat, kGreeterSession));
  EXPECT_EQ("3999999999", ConsoleUser("ACTIVE=c1\nACTIVE_UID=3999999999\n", kSession));
  EXPECT_EQ("(absent)", ConsoleUser(kSeat, kClosingSession)) << "the user has logged out";
  EXPECT_EQ("(absent)", ConsoleUser(kSeat, "")) << "the session has ended";
  EXPECT_EQ("(absent)", ConsoleUser("IS_SEAT0=1\n", kSession)) << "no session is in the foreground";
  EXPECT_EQ("(absent)", ConsoleUser("", "")) << "no logind";
  EXPECT_EQ("(absent)", ConsoleUser("ACTIVE=c1\nACTIVE_UID=none\n", kSession));
  EXPECT_EQ("(absent)", ConsoleUser(std::string(4096, '\0'), kSession));
}

}  // namespace
