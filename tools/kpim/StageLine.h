// Progress on a terminal.
#pragma once

#include <stddef.h>

#include <chrono>
#include <string>

namespace kpim {

/// One line on standard error that shows the current step: "compressing 34.1 MB ...", with progress
/// "compressing 34.1 MB ... 43 %, 12 s, 16 s left". The destructor completes it with the time that
/// the step took. The line fits in 80 columns, and is drawn again at most ten times a second.
/// Nothing is shown when standard error is not a terminal. Do not print anything else there while
/// the object exists.
class StageLine {
 public:
  using Clock = std::chrono::steady_clock;

  /// Shows the line unless `isWanted` is false. `now` returns the time.
  explicit StageLine(const std::string& text, bool isWanted = true,
                     Clock::time_point (*now)() = Clock::now);
  ~StageLine();
  StageLine(const StageLine&) = delete;
  StageLine& operator=(const StageLine&) = delete;

  /// Shows that `done` of `total` units are complete. `total` must not be 0.
  void Update(unsigned long done, unsigned long total);

 private:
  void Show(const std::string& progress, const char* ending);
  long Seconds(Clock::time_point time) const;

  const std::string text_;
  Clock::time_point (*const now_)();
  const Clock::time_point start_;
  Clock::time_point shownAt_;
  bool isShown_ = false;
  std::string percentage_;
  size_t shownLength_ = 0;
};

}  // namespace kpim
