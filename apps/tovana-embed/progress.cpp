#include "progress.h"

#include <array>
#include <cstdio>

#include <unistd.h>

#include "tovana/base/clock.h"

namespace tovana::tool {
namespace {

constexpr double kRedrawS = 0.1;

/// The cursor goes back to the start of the line, so that a message overwrites the progress instead
/// of following it; the width covers what the line held before.
void draw_line(const char* text) { std::fprintf(stderr, "\r%-60s\r", text); }

}  // namespace

Progress::Progress(std::size_t total, bool writes_to_stdout)
    : _total(total),
      _visible(isatty(STDERR_FILENO) != 0 && !(writes_to_stdout && isatty(STDOUT_FILENO) != 0)),
      _start(system_clock().now()),
      _next_drawing(_start + kRedrawS) {
  if (_visible) draw(_start);
}

Progress::~Progress() {
  if (_visible) draw_line("");
}

void Progress::advance(std::size_t texts) {
  _done += texts;
  if (!_visible) return;
  const double now = system_clock().now();
  if (now < _next_drawing) return;
  _next_drawing = now + kRedrawS;
  draw(now);
}

void Progress::draw(double now) {
  std::array<char, 100> text{};
  if (_done == 0) {
    std::snprintf(text.data(), text.size(), "embedding %zu texts", _total);
  } else {
    std::snprintf(text.data(), text.size(), "%zu of %zu texts, %.0f a second", _done, _total,
                  static_cast<double>(_done) / (now - _start));
  }
  draw_line(text.data());
}

}  // namespace tovana::tool
