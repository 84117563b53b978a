#include "tests/support/manual_clock.h"

#include <algorithm>
#include <string>

#include "tests/support/waiting.h"

namespace tovana::testing {

double ManualClock::now() const noexcept {
  const LockGuard guard(_mutex);
  return _now;
}

void ManualClock::advance(double seconds, bool wakes) {
  std::list<Waiter> waiters;
  {
    const LockGuard guard(_mutex);
    _now += seconds;
    if (wakes) waiters = _waiters;
  }
  for (Waiter& waiter : waiters) {
    // It came with the lock held and lets go of it only by waiting: then it hears the signal.
    waiter.lock.lock();
    waiter.lock.unlock();
    waiter.changed->notify_all();
  }
}

void ManualClock::await_waiter(double deadline) {
  const Waiting waiting("a thread that waits until " + std::to_string(deadline));
  const LockGuard guard(_mutex);
  while (std::ranges::find(_waiters, deadline, &Waiter::deadline) == _waiters.end()) {
    _waiters_changed.wait(_mutex);
  }
}

void ManualClock::wait_until(ConditionVariable& changed, LockReference& held, double deadline) {
  std::list<Waiter>::iterator self;
  {
    const LockGuard guard(_mutex);
    if (!(deadline > _now)) return;
    self = _waiters.insert(_waiters.end(), Waiter{&changed, held, deadline});
    _waiters_changed.notify_all();
  }
  const Waiting waiting("the clock to reach " + std::to_string(deadline));
  changed.native().wait(held);
  const LockGuard guard(_mutex);
  _waiters.erase(self);
}

void FakeClock::wait_until(ConditionVariable& /*changed*/, LockReference& /*held*/,
                           double deadline) {
  const LockGuard guard(_mutex);
  _now = std::max(_now, deadline);
}

}  // namespace tovana::testing
