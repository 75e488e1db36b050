#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libproc.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/unit/support/TemporaryFolder.h"

namespace {

using testing::AnyOf;
using testing::Contains;

constexpr int kCapacity = 65536;

/// The whole list, including the zeros.
std::vector<int> WholeList() {
  std::vector<int> pids(kCapacity);
  const int size = proc_listpids(PROC_ALL_PIDS, 0, pids.data(), kCapacity * int{sizeof(int)});
  EXPECT_GT(size, 0);
  EXPECT_EQ(0u, static_cast<size_t>(size) % sizeof(int));
  pids.resize(static_cast<size_t>(size) / sizeof(int));
  return pids;
}

/// The processes of the list.
std::vector<int> ListPIDs() {
  std::vector<int> pids = WholeList();
  pids.erase(std::remove(pids.begin(), pids.end(), 0), pids.end());
  return pids;
}

/// A process that does nothing, and ends with the object.
class Child {
 public:
  /// Runs `prepare` in the child, then a copy of /bin/sleep at `executable`, or the test itself for
  /// an empty path.
  explicit Child(
      const std::string& executable = std::string(), const char* name = nullptr,
      const std::function<bool()>& prepare = [] { return true; }) {
    int ready[2];
    EXPECT_EQ(0, pipe2(ready, O_CLOEXEC));
    pid_ = fork();
    if (pid_ == 0) {
      if (!prepare()) {
        _exit(1);
      }
      if (name != nullptr) {
        prctl(PR_SET_NAME, name);
      }
      if (!executable.empty()) {
        execl(executable.c_str(), executable.c_str(), "60", nullptr);
        _exit(1);
      }
      close(ready[1]);
      for (;;) {
        pause();
      }
    }
    // Returns when exec, or the end of the child, closes the other end.
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(0, read(ready[0], &byte, 1));
    close(ready[0]);
  }
  ~Child() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  /// False when it could not be prepared or executed, and has ended.
  bool isRunning() const {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT | WNOHANG) == 0 &&
           info.si_pid == 0;
  }

 private:
  pid_t pid_ = -1;
};

std::string PathOf(int pid) {
  char path[4096];
  const int length = proc_pidpath(pid, path, sizeof(path));
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

std::string CopyOfSleep(const TemporaryFolder& folder, const char* name) {
  const std::string path = folder / name;
  std::filesystem::copy_file("/bin/sleep", path);
  return path;
}

TEST(ProcessTable, TheNewestComesFirst) {
  const Child first;
  usleep(30'000);
  const Child second;
  const std::vector<int> pids = ListPIDs();
  const auto at = [&pids](int pid) { return std::find(pids.begin(), pids.end(), pid); };
  ASSERT_NE(pids.end(), at(first.pid()));
  ASSERT_NE(pids.end(), at(getpid()));
  EXPECT_LT(at(second.pid()), at(first.pid()));
  EXPECT_LT(at(first.pid()), at(getpid()));
  EXPECT_EQ(1, *std::min_element(pids.begin(), pids.end()));
  EXPECT_LT(at(getpid()), at(1));
}

TEST(ProcessTable, NameOfAProcessMayHoldParentheses) {
  const Child first(std::string(), ") R 1 (a) 9 9");
  usleep(30'000);
  const Child second(std::string(), "x) 0 0 0 0 0");
  const std::vector<int> pids = ListPIDs();
  EXPECT_LT(std::find(pids.begin(), pids.end(), second.pid()),
            std::find(pids.begin(), pids.end(), first.pid()));
  EXPECT_LT(std::find(pids.begin(), pids.end(), first.pid()),
            std::find(pids.begin(), pids.end(), getpid()));
}

TEST(ProcessTable, ZombiesAreListed) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  siginfo_t info;
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));
  EXPECT_THAT(ListPIDs(), Contains(child));
  EXPECT_EQ("", PathOf(child));
  waitpid(child, nullptr, 0);
  EXPECT_THAT(ListPIDs(), testing::Not(Contains(child)));
}

TEST(ProcessTable, AfterTheProcessesComeAsManyZeros) {
  const std::vector<int> pids = WholeList();
  ASSERT_EQ(0u, pids.size() % 2);
  const auto half = pids.begin() + static_cast<std::ptrdiff_t>(pids.size() / 2);
  EXPECT_EQ(half, std::find(pids.begin(), pids.end(), 0));
  EXPECT_EQ(pids.end(), std::find_if(half, pids.end(), [](int pid) { return pid != 0; }));
  EXPECT_THAT(std::vector<int>(pids.begin(), half), Contains(1)) << "the oldest counts, too";
}

TEST(ProcessTable, SizeHasRoomForTheZerosAndForTwentyMore) {
  const int size = proc_listpids(PROC_ALL_PIDS, 0, nullptr, 0);
  const int listed = static_cast<int>(WholeList().size() * sizeof(int));
  // Some may have ended meanwhile.
  EXPECT_NEAR(listed + 40 * static_cast<int>(sizeof(int)), size, 32 * sizeof(int));
}

TEST(ProcessTable, ProcessesThatStartAfterTheSizeWasAskedForPushNoneOut) {
  const Child before;
  const int size = proc_listpids(PROC_ALL_PIDS, 0, nullptr, 0);
  std::vector<std::unique_ptr<Child>> meanwhile(100);
  for (std::unique_ptr<Child>& child : meanwhile) {
    child = std::make_unique<Child>();
  }
  std::vector<int> pids(static_cast<size_t>(size) / sizeof(int));
  const int listed = proc_listpids(PROC_ALL_PIDS, 0, pids.data(), size);
  // As the product counts: half of the list.
  pids.resize(static_cast<size_t>(listed) / sizeof(int) / 2);
  EXPECT_THAT(pids, Contains(before.pid()));
  EXPECT_THAT(pids, Contains(getpid()));
  EXPECT_THAT(pids, Contains(1));
  EXPECT_THAT(ListPIDs(), Contains(meanwhile.back()->pid())) << "only one list is held back";
}

TEST(ProcessTable, ABufferThatIsTooSmallIsFilledAndNeverExceeded) {
  const std::vector<int> pids = ListPIDs();
  for (const int size : {0, 3, 4, 7, 8}) {
    // Exactly as long as needed, so that a sanitizer sees a write after the end.
    std::vector<char> buffer(static_cast<size_t>(size));
    int nothing = 0;
    void* const place = size == 0 ? static_cast<void*>(&nothing) : buffer.data();
    EXPECT_EQ(size / 4 * 4, proc_listpids(PROC_ALL_PIDS, 0, place, size));
  }
  int one = 0;
  EXPECT_EQ(0, proc_listpids(PROC_ALL_PIDS, 0, &one, -4));
  EXPECT_EQ(0, one);
}

TEST(ProcessTable, OtherKindsOfListsAreRefused) {
  int pids[4];
  errno = 0;
  EXPECT_EQ(0, proc_listpids(2, 0, pids, sizeof(pids)));
  EXPECT_EQ(EINVAL, errno);
}

TEST(ProcessPath, IsTheExecutables) {
  char own[4096];
  const ssize_t length = readlink("/proc/self/exe", own, sizeof(own));
  ASSERT_GT(length, 0);
  EXPECT_EQ(std::string(own, static_cast<size_t>(length)), PathOf(getpid()));
  const TemporaryFolder folder;
  const Child child(CopyOfSleep(folder, "tool"));
  EXPECT_EQ(folder / "tool", PathOf(child.pid()));
}

TEST(ProcessPath, OfADeletedExecutableIsTheOneItHad) {
  const TemporaryFolder folder;
  const std::string path = CopyOfSleep(folder, "tool");
  const Child child(path);
  std::filesystem::remove(path);
  EXPECT_EQ(path, PathOf(child.pid()));
  // Another file in its place is not the executable.
  WriteWholeFile(path + " (deleted)", "x");
  EXPECT_EQ(path, PathOf(child.pid()));
  WriteWholeFile(path, "x");
  EXPECT_EQ(path, PathOf(child.pid()));
}

TEST(ProcessPath, OfAnExecutableThatWasDeletedWithItsFoldersIsTheOneItHad) {
  const TemporaryFolder folder;
  std::filesystem::create_directories(folder / "a/b");
  const std::string path = CopyOfSleep(folder, "a/b/tool");
  const Child child(path);
  std::filesystem::remove_all(folder / "a");
  EXPECT_EQ(path, PathOf(child.pid()));
}

TEST(ProcessPath, AFileMayBeCalledDeleted) {
  const TemporaryFolder folder;
  const std::string path = CopyOfSleep(folder, "tool (deleted)");
  const Child child(path);
  EXPECT_EQ(path, PathOf(child.pid()));
}

/// Mounts the folder `mounted` over `folder` in a new mount namespace of the calling process.
bool MountInNewNamespace(const std::string& mounted, const std::string& folder) {
  const int flags = geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER;
  return unshare(flags) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount(mounted.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

TEST(ProcessPath, OfAnotherFileThatIsMountedThereElsewhereIsNone) {
  const TemporaryFolder folder;
  const TemporaryFolder mounted;
  const std::string path = CopyOfSleep(folder, "tool");
  const std::string disguised = CopyOfSleep(mounted, "tool");
  const Child child(path, nullptr,
                    [&] { return MountInNewNamespace(mounted.Path(), folder.Path()); });
  if (!child.isRunning()) {
    GTEST_SKIP() << "needs a mount namespace, which this machine does not allow";
  }
  const std::string link = "/proc/" + std::to_string(child.pid()) + "/exe";
  ASSERT_EQ(path, std::filesystem::read_symlink(link));
  errno = 0;
  EXPECT_EQ("", PathOf(child.pid()));
  EXPECT_EQ(ENXIO, errno);
  // The same when either file has been removed.
  std::filesystem::remove(disguised);
  ASSERT_EQ(path + " (deleted)", std::filesystem::read_symlink(link));
  EXPECT_EQ("", PathOf(child.pid()));
  std::filesystem::remove(path);
  EXPECT_EQ("", PathOf(child.pid()));
  std::filesystem::remove(folder.Path());
  EXPECT_EQ("", PathOf(child.pid()));
}

TEST(ProcessPath, OfTheSameFileInAnotherNamespaceIsItsOwn) {
  const TemporaryFolder folder;
  const TemporaryFolder empty;
  const TemporaryFolder elsewhere;
  const std::string path = CopyOfSleep(folder, "tool");
  const Child child(path, nullptr,
                    [&] { return MountInNewNamespace(empty.Path(), elsewhere.Path()); });
  if (!child.isRunning()) {
    GTEST_SKIP() << "needs a mount namespace, which this machine does not allow";
  }
  EXPECT_EQ(path, PathOf(child.pid()));
}

TEST(ProcessPath, ZeroByteMustFit) {
  const std::string path = PathOf(getpid());
  std::vector<char> buffer(path.size() + 1, '?');
  EXPECT_EQ(static_cast<int>(path.size()),
            proc_pidpath(getpid(), buffer.data(), static_cast<uint32_t>(buffer.size())));
  EXPECT_EQ(path, buffer.data());
  errno = 0;
  EXPECT_EQ(0, proc_pidpath(getpid(), buffer.data(), static_cast<uint32_t>(path.size())));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(0, proc_pidpath(getpid(), buffer.data(), 0));
}

TEST(ProcessPath, ThereMustBeABuffer) {
  errno = 0;
  EXPECT_EQ(0, proc_pidpath(getpid(), nullptr, 4096));
  EXPECT_EQ(EFAULT, errno);
}

TEST(ProcessPath, OfNoProcessIsNone) {
  char path[64];
  for (const int pid : {-1, 0, INT_MAX}) {
    errno = 0;
    EXPECT_EQ(0, proc_pidpath(pid, path, sizeof(path)));
    EXPECT_EQ(ESRCH, errno) << pid;
  }
}

TEST(ProcessPath, OfAnotherUserIsRefused) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "changing the user needs root";
  }
  ASSERT_EQ(0, seteuid(65534));
  char path[4096];
  errno = 0;
  const int length = proc_pidpath(1, path, sizeof(path));
  const int error = errno;
  ASSERT_EQ(0, seteuid(0));
  EXPECT_EQ(0, length);
  EXPECT_EQ(EPERM, error);
}

}  // namespace
