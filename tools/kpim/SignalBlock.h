// Blocking signals during a few lines of code.
#pragma once

#include <signal.h>

namespace kpim {

/// Blocks all signals for the calling thread, and for threads that it starts, while the object
/// exists.
class SignalBlock {
 public:
  SignalBlock() {
    sigset_t all;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalBlock() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

 private:
  sigset_t before_ = {};
};

}  // namespace kpim
