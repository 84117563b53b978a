#pragma once

#include <limits>

#include "interrupts.h"

namespace tovana::tool {

/// What can end a run before its work is done: the user, and the deadline. Any thread may ask.
class RunLimits {
 public:
  static constexpr double kNoDeadline = std::numeric_limits<double>::infinity();

  /// The deadline is `seconds` from now. `interrupts` outlives the limits.
  explicit RunLimits(const Interrupts& interrupts, double seconds = kNoDeadline);

  /// The stop test of a call: whether the user wants it to end.
  bool should_stop() const noexcept { return _interrupts.requested(); }
  /// A point of the system clock, in seconds; infinity if there is none.
  double deadline() const noexcept { return _deadline; }

  /// Throws Interrupted when the user wants the run to end.
  void check_interrupted() const;
  /// Throws that, or Failure (call_failed) when the deadline has passed.
  void check() const;

  /// Blocks until `descriptor` has one of the poll events or an error. Throws as `check` does, when
  /// that comes first.
  void wait_for(int descriptor, short events) const;
  /// Blocks for so long, or less. Throws as `check` does.
  void pause(double seconds) const;

 private:
  /// Blocks once, at most so long. Whether the descriptor has the events; one below 0 never has.
  bool _poll_for(int descriptor, short events, double longest_s) const;

  const Interrupts& _interrupts;
  double _seconds;
  double _deadline;
};

}  // namespace tovana::tool
