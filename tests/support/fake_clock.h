#pragma once

#include <vector>

#include "tovana/base/clock.h"
#include "tovana/base/mutex.h"

namespace tovana::testing {

/// A clock on which every wait ends at once, having moved the time to the end of the wait.
class FakeClock final : public Clock {
 public:
  explicit FakeClock(double start = 1000) : _now(start) {}

  double now() const noexcept override;
  void advance(double seconds);

 protected:
  void wait_until(ConditionVariable& changed, LockReference& held, double deadline) override;

 private:
  mutable Mutex _mutex;
  double _now TOVANA_GUARDED_BY(_mutex);
};

}  // namespace tovana::testing
