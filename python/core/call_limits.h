#pragma once

#include <limits>

#include <nanobind/nanobind.h>

namespace tovana::python {

/// What can end a call before its work is done: Ctrl-C, the caller's stop test, and the time. Has
/// the interpreter in every operation.
class CallLimits {
 public:
  /// Seconds between two looks at them while a call waits.
  static constexpr double kSliceS = 0.05;

  /// `timeout`: seconds from now, infinity for none. A `should_stop` of None never stops.
  CallLimits(double timeout, nanobind::object should_stop);

  /// The point of the system clock, in seconds, when the time is up; may be infinity.
  double deadline() const noexcept { return _deadline; }

  /// Throws what a signal's handler or the stop test raises, and EmbeddingStopped when the stop test
  /// says stop.
  void check_stopped() const;
  /// Throws that, or RuntimeError when the time is up.
  void check() const;

 private:
  const double _timeout;
  const double _deadline;
  const nanobind::object _should_stop;
};

}  // namespace tovana::python
