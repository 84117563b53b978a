#include "progress_line.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <sys/ioctl.h>
#include <unistd.h>

namespace tovana::tool {
namespace {

constexpr double kRedrawS = 0.1;
constexpr double kNextLineS = 10;

void draw(const std::string& text) {
  constexpr const char* kEraseToEnd = "\x1B[K";
  static_cast<void>(std::fputs(("\r" + text + kEraseToEnd + "\r").c_str(), stderr));
}

}  // namespace

bool ProgressLine::_stderr_is_terminal() noexcept { return ::isatty(STDERR_FILENO) != 0; }

std::size_t ProgressLine::width() noexcept {
  constexpr std::size_t kUsual = 80;
  winsize size = {};
  const bool is_known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return is_known ? size.ws_col : kUsual;
}

void ProgressLine::begin(double now) noexcept {
  _next_time = now + (_is_on_terminal ? 0 : kNextLineS);
}

bool ProgressLine::comes_due(double now) noexcept {
  if (now < _next_time) return false;
  _next_time = now + (_is_on_terminal ? kRedrawS : kNextLineS);
  return true;
}

void ProgressLine::show(std::string text) {
  if (!_is_on_terminal) return write("  " + text);
  text.resize(std::min(text.size(), width() - 1));
  std::ranges::replace_if(
      text, [](char c) { return c < ' ' || c > '~'; }, '?');
  draw(text);
  _is_drawn = true;
}

void ProgressLine::write(const std::string& line) {
  clear();
  static_cast<void>(std::fputs((line + "\n").c_str(), stderr));
}

void ProgressLine::clear() {
  if (std::exchange(_is_drawn, false)) draw("");
}

}  // namespace tovana::tool
