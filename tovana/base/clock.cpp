#include "tovana/base/clock.h"

#include <algorithm>
#include <chrono>

#include "tovana/base/condition_variable.h"

namespace tovana {
namespace {

/// Longer waits are made in slices: the standard library turns a wait of centuries, or of infinity,
/// into one that has already timed out.
constexpr double kLongestWaitS = 24.0 * 60 * 60;

class SystemClock final : public Clock {
 public:
  double now() const noexcept override {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }

 protected:
  void wait_until(ConditionVariable& changed, LockReference& held, double deadline) override {
    const double remaining = deadline - now();
    if (!(remaining > 0)) return;
    changed.native().wait_for(held,
                              std::chrono::duration<double>(std::min(remaining, kLongestWaitS)));
  }
};

}  // namespace

Clock& system_clock() {
  static auto* const clock = new SystemClock;
  return *clock;
}

}  // namespace tovana
