// Progress on a pseudo-terminal, with a clock that the test sets.
#include "tools/kpim/StageLine.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>

namespace {

using kpim::StageLine;
using std::chrono::milliseconds;

StageLine::Clock::time_point s_now;
StageLine::Clock::time_point Now() { return s_now; }

/// Makes standard error a terminal while the object exists.
class StageLineTest : public testing::Test {
 protected:
  StageLineTest() {
    EXPECT_EQ(0, grantpt(terminal_));
    EXPECT_EQ(0, unlockpt(terminal_));
    const int side = open(ptsname(terminal_), O_RDWR | O_NOCTTY);
    EXPECT_EQ(STDERR_FILENO, dup2(side, STDERR_FILENO));
    close(side);
  }
  ~StageLineTest() override {
    dup2(standardError_, STDERR_FILENO);
    close(standardError_);
    close(terminal_);
  }

  /// What the terminal has shown since the last call. Writes a mark and reads up to it, so it never
  /// waits for more.
  std::string Shown() const {
    EXPECT_EQ(1, write(STDERR_FILENO, "#", 1));
    std::string shown;
    while (shown.empty() || shown.back() != '#') {
      char some[256];
      const ssize_t count = read(terminal_, some, sizeof(some));
      if (count <= 0) {
        ADD_FAILURE() << "the terminal is gone";
        break;
      }
      shown.append(some, static_cast<size_t>(count));
    }
    shown.pop_back();
    return shown;
  }

 private:
  const int terminal_ = posix_openpt(O_RDWR | O_NOCTTY);
  const int standardError_ = dup(STDERR_FILENO);
};

TEST_F(StageLineTest, WithoutProgressHasTheTimeAtTheEnd) {
  {
    const StageLine stage("working", true, Now);
    EXPECT_EQ("\rworking ...", Shown());
    s_now += milliseconds(2500);
  }
  // The terminal turns a line feed into these two.
  EXPECT_EQ("\rworking ... 2 s\r\n", Shown());
}

TEST_F(StageLineTest, HasPercentageTimeAndRemainingTime) {
  auto stage = std::make_unique<StageLine>("working", true, Now);
  EXPECT_EQ("\rworking ...", Shown());
  s_now += milliseconds(500);
  stage->Update(1, 100);
  EXPECT_EQ("\rworking ... 1 %, 0 s", Shown());
  s_now += milliseconds(2500);
  stage->Update(10, 100);
  EXPECT_EQ("\rworking ... 10 %, 3 s, 27 s left", Shown());
  s_now += milliseconds(7000);
  stage->Update(999, 1000);
  EXPECT_EQ("\rworking ... 99 %, 10 s, 0 s left", Shown());
  stage->Update(1000, 1000);
  stage.reset();
  // Blanks cover the rest of a longer line.
  EXPECT_EQ("\rworking ... 100 %, 10 s         \r\n", Shown());
}

TEST_F(StageLineTest, IsDrawnAtMostTenTimesASecond) {
  StageLine stage("working", true, Now);
  (void)Shown();
  int drawn = 0;
  for (unsigned long millisecond = 1; millisecond <= 1000; ++millisecond) {
    s_now += milliseconds(1);
    stage.Update(millisecond, 5000);
    drawn += Shown().empty() ? 0 : 1;
  }
  EXPECT_EQ(10, drawn);
}

TEST_F(StageLineTest, FitsEightyColumns) {
  auto stage = std::make_unique<StageLine>(std::string(200, 'x'), true, Now);
  EXPECT_EQ("\r" + std::string(79, 'x'), Shown());
  stage = std::make_unique<StageLine>("compressing 4294.9 MB", true, Now);
  (void)Shown();
  s_now += std::chrono::hours(99);
  stage->Update(1, 1000000);
  const std::string shown = Shown();
  EXPECT_THAT(shown, testing::EndsWith(" s left"));
  EXPECT_LE(shown.size(), 1 + 79U);
}

TEST_F(StageLineTest, IsNotShownUnlessWanted) {
  {
    StageLine stage("working", false, Now);
    s_now += milliseconds(1000);
    stage.Update(1, 2);
  }
  EXPECT_EQ("", Shown());
}

TEST_F(StageLineTest, NeedsATerminal) {
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  const int terminal = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  {
    StageLine stage("working", true, Now);
    s_now += milliseconds(1000);
    stage.Update(1, 2);
  }
  dup2(terminal, STDERR_FILENO);
  close(terminal);
  close(ends[1]);
  char some[16];
  EXPECT_EQ(0, read(ends[0], some, sizeof(some)));
  close(ends[0]);
}

}  // namespace
