#include "progress.h"

#include <cmath>
#include <string>

#include <unistd.h>

#include "tovana/base/clock.h"

namespace tovana::tool {
namespace {

/// "59 s", "2 min", "3 h".
std::string duration(double seconds) {
  if (seconds < 60) return std::to_string(std::llround(seconds)) + " s";
  const double minutes = seconds / 60;
  if (minutes < 120) return std::to_string(std::llround(minutes)) + " min";
  return std::to_string(std::llround(minutes / 60)) + " h";
}

}  // namespace

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
  std::string done = std::to_string(_done);
  if (_total) done += " of " + std::to_string(*_total);
  done += " texts, " + std::to_string(std::llround(rate)) + " a second";
  if (_total) done += ", " + duration(static_cast<double>(*_total - _done) / rate) + " left";
  _line.show(done);
}

}  // namespace tovana::tool
