#pragma once

#include <condition_variable>

#include "tovana/base/lock_reference.h"
#include "tovana/base/thread_annotations.h"

namespace tovana {

/// What a thread waits on until another changes the state under the lock. Timed waits belong to the
/// clock (`Clock::wait_until`), so that tests can pass time without spending it.
class ConditionVariable {
 public:
  void notify_all() noexcept { _condition.notify_all(); }

  /// Waits until notified; may also return for no reason, so the caller tests its condition in a
  /// loop.
  template <class Lock>
  void wait(Lock& held) TOVANA_REQUIRES(held) {
    LockReference lock(held);
    _condition.wait(lock);
  }

  /// The standard condition variable, for implementations of `Clock`.
  std::condition_variable_any& native() noexcept { return _condition; }

 private:
  std::condition_variable_any _condition;
};

}  // namespace tovana
