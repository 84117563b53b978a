#include "tests/support/fake_clock.h"

#include <algorithm>

namespace tovana::testing {

double FakeClock::now() const noexcept {
  const LockGuard lock(_mutex);
  return _now;
}

void FakeClock::advance(double seconds) {
  const LockGuard lock(_mutex);
  _now += seconds;
}

void FakeClock::wait_until(ConditionVariable& /*changed*/, LockReference& /*held*/,
                           double deadline) {
  const LockGuard lock(_mutex);
  _now = std::max(_now, deadline);
}

}  // namespace tovana::testing
