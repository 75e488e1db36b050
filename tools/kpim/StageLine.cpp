#include "tools/kpim/StageLine.h"

#include <stdio.h>
#include <unistd.h>

#include <system_error>

#include "tools/kpim/SignalBlock.h"
#include "tools/kpim/Text.h"

namespace kpim {

namespace {

constexpr std::chrono::seconds kInterval(1);

}  // namespace

StageLine::StageLine(const std::string& text) : text_(Printable(text)) {
  if (isatty(STDERR_FILENO) == 0) {
    return;
  }
  Show("");
  isShown_ = true;
  // Signals are the main thread's: it knows when they must wait.
  const SignalBlock block;
  try {
    ticker_ = std::thread([this] { Tick(); });
  } catch (const std::system_error&) {
    // Without a thread the line stands still until the stage ends.
  }
}

StageLine::~StageLine() {
  if (!isShown_) {
    return;
  }
  if (ticker_.joinable()) {
    StopTicker();
  }
  Show("\n");
}

void StageLine::StopTicker() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    hasEnded_ = true;
  }
  ended_.notify_one();
  ticker_.join();
}

void StageLine::Tick() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!ended_.wait_for(lock, kInterval, [this] { return hasEnded_; })) {
    Show("");
  }
}

/// The line only ever grows, so that writing it again covers what was there.
void StageLine::Show(const char* ending) {
  const auto elapsed = std::chrono::steady_clock::now() - start_;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(elapsed).count();
  (void)fprintf(stderr, "\r%s ... %lld s%s", text_.c_str(), static_cast<long long>(seconds),
                ending);
}

}  // namespace kpim
