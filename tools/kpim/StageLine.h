// Progress on a terminal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace kpim {

/// One line on standard error that tells what is being done and for how long, as long as the
/// object lives: "compressing 34.1 MB ... 12 s". Nothing happens when standard error is no
/// terminal. Report nothing else meanwhile.
class StageLine {
 public:
  explicit StageLine(const std::string& text);
  ~StageLine();
  StageLine(const StageLine&) = delete;
  StageLine& operator=(const StageLine&) = delete;

 private:
  void StopTicker();
  void Tick();
  void Show(const char* ending);

  const std::string text_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  bool isShown_ = false;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool hasEnded_ = false;
  std::thread ticker_;
};

}  // namespace kpim
