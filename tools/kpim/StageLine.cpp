#include "tools/kpim/StageLine.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>

#include "tools/kpim/Text.h"

namespace kpim {

namespace {

constexpr std::chrono::milliseconds kInterval(100);

// Some terminals begin a new line after the eightieth column.
constexpr size_t kColumns = 79;

// The remaining time is shown after this time only: before that an estimate would be wrong.
constexpr std::chrono::seconds kEstimateAfter(1);

std::string InSeconds(double seconds) {
  char text[32];
  (void)snprintf(text, sizeof text, "%.0f s", seconds);
  return text;
}

}  // namespace

StageLine::StageLine(const std::string& text, bool isWanted, Clock::time_point (*now)())
    : text_(Printable(text) + " ..."), now_(now), start_(now()), shownAt_(start_) {
  isShown_ = isWanted && isatty(STDERR_FILENO) != 0;
  if (isShown_) {
    Show("", "");
  }
}

StageLine::~StageLine() {
  if (isShown_) {
    Show(percentage_ + std::to_string(Seconds(now_())) + " s", "\n");
  }
}

void StageLine::Update(unsigned long done, unsigned long total) {
  if (!isShown_) {
    return;
  }
  const double fraction = static_cast<double>(done) / static_cast<double>(total);
  percentage_ = std::to_string(static_cast<int>(100 * fraction)) + " %, ";
  const Clock::time_point now = now_();
  if (now - shownAt_ < kInterval) {
    return;
  }
  shownAt_ = now;
  std::string progress = percentage_ + std::to_string(Seconds(now)) + " s";
  if (now - start_ >= kEstimateAfter && done > 0) {
    const std::chrono::duration<double> elapsed = now - start_;
    progress += ", " + InSeconds(elapsed.count() * (1 - fraction) / fraction) + " left";
  }
  Show(progress, "");
}

// Draws the line again. Spaces cover the rest of a longer earlier line.
void StageLine::Show(const std::string& progress, const char* ending) {
  std::string line = text_ + (progress.empty() ? "" : " ") + progress;
  line.resize(std::min(line.size(), kColumns));
  const size_t length = line.size();
  line.resize(std::max(length, shownLength_), ' ');
  shownLength_ = length;
  (void)fprintf(stderr, "\r%s%s", line.c_str(), ending);
}

long StageLine::Seconds(Clock::time_point time) const {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(time - start_).count());
}

}  // namespace kpim
