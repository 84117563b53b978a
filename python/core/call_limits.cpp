#include "call_limits.h"

#include <cstdio>
#include <string>
#include <utility>

#include "interpreter.h"
#include "tovana/engines/embedding/embedding.h"

namespace tovana::python {

CallLimits::CallLimits(double timeout, nanobind::object should_stop)
    : _timeout(timeout),
      _deadline(system_clock().now() + timeout),
      _should_stop(std::move(should_stop)) {}

void CallLimits::check_stopped() const {
  check_signals();
  if (!_should_stop.is_none() && nanobind::cast<bool>(nanobind::bool_(_should_stop()))) {
    throw embedding::EmbeddingStopped("the embedding call was asked to stop");
  }
}

void CallLimits::check() const {
  check_stopped();
  if (system_clock().now() < _deadline) return;
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%g", _timeout);
  throw RuntimeError(std::string("the call's time of ") + seconds + " s is up");
}

}  // namespace tovana::python
