#include "fetch_display.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <memory>
#include <utility>

#include <unistd.h>

#include "tovana/base/text.h"

namespace tovana::tool {
namespace {

constexpr double kRedrawS = 0.1;
constexpr double kNextLineS = 10;
/// The rate is that of the last so many seconds.
constexpr double kRateWindowS = 5;
constexpr int kBarWidth = 24;

template <class... Values>
std::string formatted(const char* format, Values... values) {
  std::array<char, 64> text{};
  static_cast<void>(std::snprintf(text.data(), text.size(), format, values...));
  return text.data();
}

std::string megabytes(std::uint64_t bytes) {
  return formatted("%.1f", static_cast<double>(bytes) / 1e6);
}

std::string file_size(std::uint64_t bytes) {
  if (bytes < 100'000) return std::to_string(bytes) + " bytes";
  return megabytes(bytes) + " MB";
}

std::string duration(double seconds) {
  const auto whole = static_cast<long>(std::ceil(std::min(seconds, 359'999.0)));
  const long minutes = whole / 60;
  if (minutes >= 60) return formatted("%ld:%02ld:%02ld", minutes / 60, minutes % 60, whole % 60);
  return formatted("%ld:%02ld", minutes, whole % 60);
}

std::string bar(std::uint64_t bytes, std::uint64_t size) {
  const double share = size == 0 ? 1 : static_cast<double>(bytes) / static_cast<double>(size);
  const int filled = std::clamp(static_cast<int>(share * kBarWidth), 0, kBarWidth);
  return "[" + std::string(static_cast<std::size_t>(filled), '#') +
         std::string(static_cast<std::size_t>(kBarWidth - filled), '.') + "] ";
}

std::string shown(std::string_view text) { return escape_control_characters(repair_utf8(text)); }

}  // namespace

FetchDisplay::FetchDisplay(Clock& clock, bool is_terminal, Write write)
    : _clock(clock), _is_terminal(is_terminal), _write(std::move(write)) {}

void FetchDisplay::operator()(const hub::FetchProgress& progress) {
  const LockGuard lock(_mutex);
  const double now = _clock.now();
  if (progress.is_over) {
    clear_line();
    _samples.clear();
    _is_begun = false;
    return;
  }
  while (!_samples.empty() && _samples.front().time < now - kRateWindowS) _samples.pop_front();
  if (!_is_begun) {
    _is_begun = true;
    _next_drawing = now + (_is_terminal ? 0 : kNextLineS);
    _write("fetching the model " + shown(progress.model) + "\n");
  }
  if (_samples.empty() || now >= _samples.back().time + kRedrawS) {
    _samples.push_back({now, progress.bytes});
  }
  if (progress.is_file_done) {
    clear_line();
    _write("  " + shown(progress.file) + ": " + file_size(progress.file_size) + "\n");
  }
  if (now >= _next_drawing) draw(progress, now);
}

void FetchDisplay::draw(const hub::FetchProgress& progress, double now) {
  _next_drawing = now + (_is_terminal ? kRedrawS : kNextLineS);
  if (!_is_terminal) return _write("  " + state(progress) + "\n");
  // The rest of the line is erased, as what stood there may have been longer.
  _write("\r" + bar(progress.bytes, progress.size) + state(progress) + "\x1B[K\r");
  _is_line_drawn = true;
}

void FetchDisplay::clear_line() {
  if (_is_line_drawn) _write("\r\x1B[K");
  _is_line_drawn = false;
}

std::string FetchDisplay::state(const hub::FetchProgress& progress) const {
  std::string text = megabytes(progress.bytes) + " of " + megabytes(progress.size) + " MB";
  const Sample& first = _samples.front();
  const double seconds = _samples.back().time - first.time;
  const std::uint64_t moved = _samples.back().bytes - first.bytes;
  if (seconds > 0 && _samples.back().bytes > first.bytes) {
    const double rate = static_cast<double>(moved) / seconds;
    const double left = static_cast<double>(progress.size - progress.bytes) / rate;
    text += ", " + formatted("%.1f", rate / 1e6) + " MB/s, " + duration(left) + " left";
  }
  return text;
}

void show_fetches() {
  // Shared by copies of the observer, the last of which goes with the process.
  const auto display = std::make_shared<FetchDisplay>(
      system_clock(), isatty(STDERR_FILENO) != 0,
      [](const std::string& text) { static_cast<void>(std::fputs(text.c_str(), stderr)); });
  hub::set_fetch_observer([display](const hub::FetchProgress& progress) { (*display)(progress); });
}

}  // namespace tovana::tool
