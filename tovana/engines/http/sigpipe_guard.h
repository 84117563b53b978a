#pragma once

#include <csignal>

#include "tovana/base/platform.h"

namespace tovana::http {

/// Keeps SIGPIPE, whose default action ends the process, from this thread for the length of a
/// scope: libcurl asks the kernel not to raise it, but its manual does not vouch for the TLS
/// library. The process's handler for the signal is left alone.
class SigpipeGuard {
 public:
  SigpipeGuard() noexcept {
    sigemptyset(&_sigpipe);
    sigaddset(&_sigpipe, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    _was_pending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &_sigpipe, &_previous_mask);
  }

  ~SigpipeGuard() {
    if (!_was_pending) take_signal(_sigpipe, 0);  // the one raised in the scope, if any
    pthread_sigmask(SIG_SETMASK, &_previous_mask, nullptr);
  }

  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t _sigpipe;
  sigset_t _previous_mask;
  bool _was_pending;
};

}  // namespace tovana::http
