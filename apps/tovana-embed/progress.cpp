#include "progress.h"

#include <cmath>
#include <string>

#include <unistd.h>

#include "tovana/base/clock.h"

namespace tovana::tool {

Progress::Progress(std::optional<std::size_t> total, bool writes_to_stdout)
    : _total(total),
      _visible(_line.is_on_terminal() && !(writes_to_stdout && isatty(STDOUT_FILENO) != 0)),
      _start(system_clock().now()) {
  if (_visible && _line.comes_due(_start)) {
    _line.show("embedding " + (total ? std::to_string(*total) + " texts" : std::string("texts")));
  }
}

void Progress::advance(std::size_t texts) {
  _done += texts;
  if (!_visible) return;
  const double now = system_clock().now();
  if (!_line.comes_due(now)) return;
  const double rate = static_cast<double>(_done) / (now - _start);
  const std::string of_all = _total ? " of " + std::to_string(*_total) : "";
  _line.show(std::to_string(_done) + of_all + " texts, " + std::to_string(std::llround(rate)) +
             " a second");
}

}  // namespace tovana::tool
