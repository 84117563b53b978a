#pragma once

#include <atomic>

namespace tovana {

/// Something that is done once in a process, and takes its time. As std::once_flag, but a fork
/// waits for what is under way: a child would wait for ever for the thread that it does not have.
/// To be made constinit, with static storage.
class ProcessOnce {
 public:
  constexpr ProcessOnce() = default;
  ProcessOnce(const ProcessOnce&) = delete;
  ProcessOnce& operator=(const ProcessOnce&) = delete;

  /// Runs `make`, unless that has been done; when it throws, the next call tries again. `make` may
  /// have other things done once, but it neither logs nor forks.
  void call(void (*make)()) {
    if (!_is_done.load(std::memory_order_acquire)) _call_locked(make);
  }

 private:
  void _call_locked(void (*make)());

  std::atomic<bool> _is_done = false;
};

}  // namespace tovana
