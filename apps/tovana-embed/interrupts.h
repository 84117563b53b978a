#pragma once

#include <array>
#include <atomic>
#include <csignal>
#include <functional>

#include "tovana/base/mutex.h"

namespace tovana::tool {

/// The user's wish to end the command: SIGINT, SIGTERM or SIGHUP, received by a thread of its own.
///
/// The first signal sets a flag and makes a descriptor readable. A command that looks at either
/// ends itself. One that has not ended a second later, or when another signal comes, is ended from
/// the signal thread: `discard_unfinished` is called there and the process exits with 130.
///
/// A signal that was ignored when the process started stays ignored (nohup, a script's `&`).
class Interrupts {
 public:
  /// Starts the thread. Call before any other thread exists: the signals are blocked in the calling
  /// thread and in every one that it starts afterwards. Throws std::system_error when the process
  /// may have no more descriptors or threads.
  explicit Interrupts(std::function<void()> discard_unfinished);
  /// It lives until the process ends, since its thread does.
  ~Interrupts() = delete;
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

  /// Has `action` called once, on the signal thread, with the first signal, or now when that has
  /// come: to end a wait that looks at neither the flag nor the descriptor. It must not block. Any
  /// thread may say so; a later action takes the place of an earlier one.
  void on_request(std::function<void()> action) const;

  /// Any thread may ask.
  bool requested() const noexcept { return _requested; }
  /// Readable, for poll, from the first signal on. Never read from it.
  int descriptor() const noexcept { return _pipe[0]; }

 private:
  [[noreturn]] void wait_for_signals(const sigset_t& signals);

  std::function<void()> _discard_unfinished;
  std::array<int, 2> _pipe;  ///< What is read, and what is written.
  std::atomic<bool> _requested = false;
  mutable Mutex _lock;
  mutable std::function<void()> _action TOVANA_GUARDED_BY(_lock);
};

}  // namespace tovana::tool
