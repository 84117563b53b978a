#include "tovana/engines/http/retry_policy.h"

#include <algorithm>
#include <cstddef>

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

StatusSet::StatusSet(std::initializer_list<Range> ranges) {
  for (const Range& range : ranges) {
    for (int status = range.first; status <= range.last; ++status) {
      _statuses.set(static_cast<std::size_t>(status));
    }
  }
}

bool StatusSet::contains(int status) const noexcept {
  const auto index = static_cast<std::size_t>(status);
  return index < _statuses.size() && _statuses[index];
}

}  // namespace tovana::http
