#pragma once

#include "tovana/base/export.h"
#include "tovana/base/lock_reference.h"
#include "tovana/base/thread_annotations.h"

/// Time as a parameter: whatever waits or measures takes a `Clock`, and a test hands it one that it
/// moves by hand.
namespace tovana {

class ConditionVariable;  // condition_variable.h

/// A monotonic clock and the waits on it. Any thread may call any operation.
class TOVANA_API Clock {
 public:
  virtual ~Clock() = default;

  /// Seconds since an arbitrary fixed point; never goes back.
  virtual double now() const noexcept = 0;

  /// Blocks until `changed` is notified or `now()` reaches `deadline` (a point of this clock, in
  /// seconds). It may return earlier than either, so the caller tests its condition and the
  /// deadline in a loop. A deadline that has passed, or is not a number, returns at once. The lock
  /// is let go during the wait and held again afterwards.
  template <class Lock>
  void wait_until(ConditionVariable& changed, Lock& held, double deadline) TOVANA_REQUIRES(held) {
    LockReference lock(held);
    wait_until(changed, lock, deadline);
  }

 protected:
  virtual void wait_until(ConditionVariable& changed, LockReference& held, double deadline) = 0;
};

/// The machine's monotonic clock. One for the process, never destroyed.
TOVANA_API Clock& system_clock();

}  // namespace tovana
