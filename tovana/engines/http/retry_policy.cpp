#include "tovana/engines/http/retry_policy.h"

#include <algorithm>

#include "tovana/base/condition_variable.h"
#include "tovana/base/mutex.h"

namespace tovana::http {
namespace {
constexpr double kStopTestPeriodS = 0.05;
}  // namespace

WaitEnding wait_unless_stopped(double seconds, const StopTest& should_stop, Clock& clock) {
  Mutex mutex;
  ConditionVariable never_notified;
  const double end = clock.now() + seconds;
  for (;;) {
    const double now = clock.now();
    if (!(now < end)) return WaitEnding::elapsed;
    if (should_stop && should_stop()) return WaitEnding::stopped;
    const double slice_end = should_stop ? std::min(end, now + kStopTestPeriodS) : end;
    const LockGuard lock(mutex);
    clock.wait_until(never_notified, mutex, slice_end);
  }
}

}  // namespace tovana::http
