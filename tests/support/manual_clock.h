#pragma once

#include <list>

#include "tovana/base/clock.h"
#include "tovana/base/condition_variable.h"
#include "tovana/base/mutex.h"

namespace tovana::testing {

/// A clock that stands still until a test moves it. Threads that wait on it do wait.
class ManualClock : public Clock {
 public:
  explicit ManualClock(double start = 1000) : _now(start) {}

  double now() const noexcept override;

  /// Moves the time and wakes every wait, or leaves that to the next call. Nothing that a wait stands
  /// on may be destroyed meanwhile.
  void advance(double seconds, bool wakes = true);

  /// Blocks until a thread waits for the point `deadline`.
  void await_waiter(double deadline);

 protected:
  void wait_until(ConditionVariable& changed, LockReference& held, double deadline) override;

  mutable Mutex _mutex;
  double _now TOVANA_GUARDED_BY(_mutex);

 private:
  struct Waiter {
    ConditionVariable* changed;
    LockReference lock;
    double deadline;
  };

  ConditionVariable _waiters_changed;
  std::list<Waiter> _waiters TOVANA_GUARDED_BY(_mutex);
};

/// One on which every wait ends at once, having moved the time to the end of the wait.
class FakeClock final : public ManualClock {
 public:
  using ManualClock::ManualClock;

 private:
  void wait_until(ConditionVariable& changed, LockReference& held, double deadline) override;
};

}  // namespace tovana::testing
