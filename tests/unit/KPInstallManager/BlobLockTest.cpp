#include "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/BlobLock.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <utility>

#include "tests/unit/support/TemporaryFolder.h"

namespace {

// Pauses are counted instead of made, and the test acts in them.
unsigned int s_pauses;
std::function<void()> s_atPause;
// Called before the next call of flock(2).
std::function<void()> s_beforeLocking;

}  // namespace

extern "C" int usleep(useconds_t duration) {
  EXPECT_EQ(BlobLock::kPause, duration);
  ++s_pauses;
  if (s_atPause) {
    s_atPause();
  }
  return 0;
}

extern "C" int flock(int descriptor, int operation) {
  static const auto real = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "flock"));
  const auto event = std::move(s_beforeLocking);
  s_beforeLocking = nullptr;
  if (event) {
    event();
  }
  return real(descriptor, operation);
}

namespace {

class BlobLockTest : public testing::Test {
 protected:
  BlobLockTest() {
    WriteWholeFile(blob_, "first");
    s_pauses = 0;
    s_atPause = s_beforeLocking = nullptr;
  }
  ~BlobLockTest() override { Release(); }

  // Another holder, in this process: flock(2) locks belong to an open file, not to a process.
  void Hold() {
    holder_ = open(blob_.c_str(), O_RDONLY);
    ASSERT_EQ(0, flock(holder_, LOCK_EX | LOCK_NB));
  }
  void Release() {
    if (holder_ >= 0) {
      close(holder_);
    }
    holder_ = -1;
  }
  bool IsLocked() const {
    const int descriptor = open(blob_.c_str(), O_RDONLY);
    const bool isLocked = flock(descriptor, LOCK_EX | LOCK_NB) != 0;
    close(descriptor);
    return isLocked;
  }
  static std::string Read(const BlobLock& lock) {
    char text[16] = {};
    EXPECT_LE(0, read(lock.Descriptor(), text, sizeof(text) - 1));
    return text;
  }

  TemporaryFolder folder_;
  const std::string blob_ = folder_ / "blob";
  int holder_ = -1;
};

TEST_F(BlobLockTest, LocksUntilItsEnd) {
  {
    BlobLock lock;
    EXPECT_EQ(BlobLockResult::kLocked, lock.Take(blob_.c_str()));
    EXPECT_TRUE(IsLocked());
    EXPECT_EQ("first", Read(lock));
    EXPECT_NE(0, fcntl(lock.Descriptor(), F_GETFD) & FD_CLOEXEC);
  }
  EXPECT_FALSE(IsLocked());
  EXPECT_EQ(0u, s_pauses);
}

TEST_F(BlobLockTest, WaitsForAnotherHolder) {
  Hold();
  s_atPause = [this] {
    if (s_pauses == 3) {
      Release();
    }
  };
  BlobLock lock;
  EXPECT_EQ(BlobLockResult::kLocked, lock.Take(blob_.c_str()));
  EXPECT_EQ(3u, s_pauses);
  EXPECT_TRUE(IsLocked());
}

TEST_F(BlobLockTest, LeavesNoDescriptorOfAnEarlierAttemptOpen) {
  Hold();
  s_atPause = [this] {
    if (s_pauses == 3) {
      Release();
    }
  };
  const int before = dup(STDERR_FILENO);
  close(before);
  {
    BlobLock lock;
    EXPECT_EQ(BlobLockResult::kLocked, lock.Take(blob_.c_str()));
    EXPECT_EQ(0, lock.Error());
  }
  // The holder's descriptor, which was lower, has been closed meanwhile.
  const int first = dup(STDERR_FILENO);
  const int second = dup(STDERR_FILENO);
  close(first);
  close(second);
  EXPECT_EQ(before, second);
}

TEST_F(BlobLockTest, FindsTheBlobGoneWhenItsHolderHasRemovedIt) {
  Hold();
  s_atPause = [this] {
    fs::remove(blob_);
    Release();
  };
  BlobLock lock;
  EXPECT_EQ(BlobLockResult::kMissing, lock.Take(blob_.c_str()));
  EXPECT_EQ(-1, lock.Descriptor());
}

TEST_F(BlobLockTest, TakesTheBlobThatIsThereAfterTheWait) {
  Hold();
  s_atPause = [this] {
    fs::remove(blob_);
    WriteWholeFile(blob_, "second");
    Release();
  };
  BlobLock lock;
  EXPECT_EQ(BlobLockResult::kLocked, lock.Take(blob_.c_str()));
  EXPECT_EQ("second", Read(lock));
}

TEST_F(BlobLockTest, DoesNotTakeABlobThatIsReplacedBeforeItIsLocked) {
  s_beforeLocking = [this] {
    fs::remove(blob_);
    WriteWholeFile(blob_, "second");
  };
  BlobLock lock;
  EXPECT_EQ(BlobLockResult::kLocked, lock.Take(blob_.c_str()));
  EXPECT_EQ("second", Read(lock));
  EXPECT_TRUE(IsLocked());
  EXPECT_EQ(1u, s_pauses);
}

TEST_F(BlobLockTest, DoesNotTakeABlobThatIsRemovedBeforeItIsLocked) {
  s_beforeLocking = [this] { fs::remove(blob_); };
  BlobLock lock;
  EXPECT_EQ(BlobLockResult::kMissing, lock.Take(blob_.c_str()));
}

TEST_F(BlobLockTest, GoesOnWithoutALockThatIsHeldForEver) {
  Hold();
  BlobLock lock;
  EXPECT_EQ(BlobLockResult::kNotLocked, lock.Take(blob_.c_str()));
  EXPECT_EQ(EWOULDBLOCK, lock.Error());
  EXPECT_EQ(60000000u, s_pauses * BlobLock::kPause);
  EXPECT_EQ("first", Read(lock));
}

TEST_F(BlobLockTest, IsMissingWhereNothingIs) {
  fs::create_symlink("nowhere", folder_ / "dangling");
  for (const char* name : {"missing", "blob/below", "dangling"}) {
    BlobLock lock;
    EXPECT_EQ(BlobLockResult::kMissing, lock.Take((folder_ / name).c_str())) << name;
  }
}

TEST_F(BlobLockTest, DoesNotWaitForWhatIsNotARegularFile) {
  ASSERT_EQ(0, mkfifo((folder_ / "fifo").c_str(), 0600));
  fs::create_symlink("/dev/zero", folder_ / "device");
  for (const std::string& path : {folder_ / "fifo", folder_ / "device", folder_.Path()}) {
    BlobLock lock;
    EXPECT_EQ(BlobLockResult::kUnreadable, lock.Take(path.c_str())) << path;
    EXPECT_EQ(ENOTSUP, lock.Error()) << path;
    EXPECT_EQ(-1, lock.Descriptor()) << path;
  }
  EXPECT_EQ(0u, s_pauses);
}

TEST_F(BlobLockTest, FollowsALinkToTheBlob) {
  fs::create_symlink("blob", folder_ / "link");
  BlobLock lock;
  EXPECT_EQ(BlobLockResult::kLocked, lock.Take((folder_ / "link").c_str()));
  EXPECT_TRUE(IsLocked());
}

}  // namespace
