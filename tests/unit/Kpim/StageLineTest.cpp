// Progress on a terminal of its own.
#include "tools/kpim/StageLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <string>

namespace {

using kpim::StageLine;

constexpr int kLongestSilence = 60 * 1000;  // Milliseconds.

/// Standard error is a terminal as long as the object lives.
class StageLineTest : public testing::Test {
 protected:
  StageLineTest() {
    int side = -1;
    EXPECT_EQ(0, openpty(&terminal_, &side, nullptr, nullptr, nullptr));
    EXPECT_EQ(STDERR_FILENO, dup2(side, STDERR_FILENO));
    close(side);
  }
  ~StageLineTest() override {
    dup2(standardError_, STDERR_FILENO);
    close(standardError_);
    close(terminal_);
  }

  /// Reads until the terminal has shown `text` `times` times, and returns all that it has shown.
  std::string ShownUntil(const std::string& text, int times) const {
    std::string shown;
    size_t end = 0;
    for (int found = 0; found < times; ++found) {
      size_t at = shown.find(text, end);
      while (at == std::string::npos) {
        if (!ReadMore(shown)) return shown;
        at = shown.find(text, end);
      }
      end = at + text.size();
    }
    return shown;
  }

 private:
  bool ReadMore(std::string& shown) const {
    pollfd readable = {terminal_, POLLIN, 0};
    if (poll(&readable, 1, kLongestSilence) != 1) return false;
    char some[256];
    const ssize_t count = read(terminal_, some, sizeof(some));
    if (count <= 0) return false;
    shown.append(some, static_cast<size_t>(count));
    return true;
  }

  int terminal_ = -1;
  const int standardError_ = dup(STDERR_FILENO);
};

// How late a busy machine shows it is left open.
TEST_F(StageLineTest, IsShownAgainUntilItEnds) {
  {
    const StageLine stage("working");
    EXPECT_THAT(ShownUntil(" s", 3),
                testing::MatchesRegex("\rworking \\.\\.\\. 0 s\rworking \\.\\.\\. [1-9][0-9]* s"
                                      "\rworking \\.\\.\\. [1-9][0-9]* s"));
  }
  // The terminal turns a line feed into these two.
  EXPECT_THAT(ShownUntil("\n", 1),
              testing::MatchesRegex("(\rworking \\.\\.\\. [1-9][0-9]* s)+\r\n"));
}

}  // namespace
