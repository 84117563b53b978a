#include "fetch_display.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "progress_line.h"
#include "tovana/base/clock.h"
#include "tovana/base/condition_variable.h"
#include "tovana/base/mutex.h"
#include "tovana/base/text.h"
#include "tovana/engines/hub/fetch_progress.h"

namespace tovana::tool {
namespace {

/// How long nothing has to come before it is said.
constexpr double kSilenceS = 3;
/// And how long after that it is said again, on a terminal and elsewhere.
constexpr double kRedrawSilenceS = 1;
constexpr double kNextSilenceS = 10;
/// The rate is that of the last so many seconds.
constexpr double kRateWindowS = 5;
constexpr double kSampleS = 0.1;
constexpr std::size_t kWidestBar = 24;
constexpr std::size_t kNarrowestBar = 5;

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

/// As much of a bar as fits beside a text of `text_size` characters; nothing when that is little.
std::string bar(std::uint64_t bytes, std::uint64_t size, std::size_t text_size) {
  constexpr std::size_t kFrame = 4;  // the brackets, a blank, and the terminal's last column
  const std::size_t taken = text_size + kFrame;
  const std::size_t columns = ProgressLine::width();
  const std::size_t room = columns > taken ? columns - taken : 0;
  const std::size_t width = std::min(kWidestBar, room);
  if (width < kNarrowestBar) return {};
  const double share = std::clamp(static_cast<double>(bytes) / static_cast<double>(size), 0.0, 1.0);
  const auto filled = static_cast<std::size_t>(share * static_cast<double>(width));
  return "[" + std::string(filled, '#') + std::string(width - filled, '.') + "] ";
}

std::string shown(std::string_view text) { return escape_control_characters(repair_utf8(text)); }

class FetchDisplay {
 public:
  /// Any thread may call it.
  void show(const hub::FetchProgress& progress) TOVANA_EXCLUDES(_mutex);

 private:
  /// What the fetch was last heard to do.
  enum class Activity { checking, asking, receiving, pausing };

  struct Sample {
    double time;
    std::uint64_t bytes;
  };

  /// Says so while nothing comes, on a thread of its own, for ever.
  [[noreturn]] void watch() TOVANA_EXCLUDES(_mutex);
  void _begin(const hub::FetchProgress& progress, double now) TOVANA_REQUIRES(_mutex);
  std::string _state() const TOVANA_REQUIRES(_mutex);
  std::string _silence(double now) const TOVANA_REQUIRES(_mutex);

  Mutex _mutex;
  ConditionVariable _begun;
  bool _is_watched TOVANA_GUARDED_BY(_mutex) = false;
  bool _is_begun TOVANA_GUARDED_BY(_mutex) = false;
  ProgressLine _line TOVANA_GUARDED_BY(_mutex);
  std::uint64_t _bytes TOVANA_GUARDED_BY(_mutex) = 0;
  std::uint64_t _size TOVANA_GUARDED_BY(_mutex) = 0;
  std::deque<Sample> _samples TOVANA_GUARDED_BY(_mutex);  ///< Of the last few seconds.
  double _last_news TOVANA_GUARDED_BY(_mutex) = 0;        ///< When something last came.
  double _silence_said TOVANA_GUARDED_BY(_mutex) = 0;     ///< When it is said that nothing does.
  std::string _model TOVANA_GUARDED_BY(_mutex);
  bool _is_announced TOVANA_GUARDED_BY(_mutex) = false;
  Activity _activity TOVANA_GUARDED_BY(_mutex) = Activity::checking;
  std::string _host TOVANA_GUARDED_BY(_mutex);     ///< That was asked last.
  std::string _problem TOVANA_GUARDED_BY(_mutex);  ///< Why it is tried again.
  double _next_try TOVANA_GUARDED_BY(_mutex) = 0;
  std::set<std::string> _held_files TOVANA_GUARDED_BY(_mutex);  ///< Others fetch them.
};

void FetchDisplay::show(const hub::FetchProgress& progress) {
  const LockGuard lock(_mutex);
  const double now = system_clock().now();
  if (progress.is_over) {
    _line.clear();
    _is_begun = false;
    return;
  }
  if (!_is_begun) _begin(progress, now);
  if (!progress.is_checking && !std::exchange(_is_announced, true)) {
    _line.write("fetching the model " + _model);
  }
  _bytes = progress.bytes;
  _size = progress.size;
  if (progress.is_waiting) {
    const std::string file = shown(progress.file);
    _held_files.insert(file);
    return _line.write("  waiting for another process that fetches " + file);
  }
  if (!progress.problem.empty()) {
    _activity = Activity::pausing;
    _problem = shown(progress.problem);
    _next_try = now + progress.retry_in_s;
    return;
  }
  if (!progress.asked_host.empty()) {
    _host = shown(progress.asked_host);
    _activity = progress.is_answered ? Activity::receiving : Activity::asking;
    if (!progress.is_answered) return;
  }
  if (progress.is_checking) _activity = Activity::checking;
  if (!_held_files.empty()) _held_files.erase(shown(progress.file));
  _last_news = now;
  _silence_said = now + kSilenceS;
  while (!_samples.empty() && _samples.front().time < now - kRateWindowS) _samples.pop_front();
  if (_samples.empty() || now >= _samples.back().time + kSampleS) {
    _samples.push_back({now, progress.bytes});
  }
  if (progress.is_file_done) {
    _line.write("  " + shown(progress.file) + ": " + file_size(progress.file_size));
  }
  if (_size > 0 && _line.comes_due(now)) {
    const std::string text = _state();
    _line.show(_line.is_on_terminal() ? bar(_bytes, _size, text.size()) + text : text);
  }
}

void FetchDisplay::_begin(const hub::FetchProgress& progress, double now) {
  _is_begun = true;
  _samples.clear();
  _model = shown(progress.model);
  _is_announced = false;
  _held_files.clear();
  _last_news = now;
  _silence_said = now + kSilenceS;
  _line.begin(now);
  _begun.notify_all();
  if (std::exchange(_is_watched, true)) return;
  try {
    std::thread([this] { watch(); }).detach();
  } catch (const std::system_error&) {  // no thread to be had: silence stays silent
  }
}

void FetchDisplay::watch() {
  const LockGuard lock(_mutex);
  for (;;) {
    while (!_is_begun) _begun.wait(_mutex);
    const double now = system_clock().now();
    if (now >= _silence_said) {
      _line.show(_silence(now));
      _silence_said = now + (_line.is_on_terminal() ? kRedrawSilenceS : kNextSilenceS);
    }
    // Not woken by news: it looks again when the silence would have been long enough.
    system_clock().wait_until(_begun, _mutex, _silence_said);
  }
}

std::string FetchDisplay::_silence(double now) const {
  const std::string seconds = ", " + formatted("%.0f s", now - _last_news);
  if (_activity == Activity::pausing) {
    return "trying again in " + formatted("%.0f s", std::max(0.0, _next_try - now)) + ": " +
           _problem;
  }
  if (!_held_files.empty()) {
    const std::size_t others = _held_files.size() - 1;
    return "waiting for another process that fetches " + *_held_files.begin() +
           (others > 0 ? " and " + std::to_string(others) + " more" : "") + seconds;
  }
  if (_activity == Activity::checking) return "checking the files of " + _model + seconds;
  return _activity == Activity::asking ? "waiting for " + _host + seconds
                                       : _host + " sends nothing" + seconds;
}

std::string FetchDisplay::_state() const {
  std::string text = megabytes(_bytes) + " of " + megabytes(_size) + " MB";
  const Sample& first = _samples.front();
  const double seconds = _samples.back().time - first.time;
  const std::uint64_t moved = _samples.back().bytes - first.bytes;
  if (seconds > 0 && _samples.back().bytes > first.bytes) {
    const double rate = static_cast<double>(moved) / seconds;
    const double left = static_cast<double>(_size - _bytes) / rate;
    text += ", " + formatted("%.1f", rate / 1e6) + " MB/s, " + duration(left) + " left";
  }
  return text;
}

}  // namespace

void show_fetches() {
  // Never deleted: a fetch and the watch may go on while the process exits.
  auto* const display = new FetchDisplay;
  hub::set_fetch_observer(
      [display](const hub::FetchProgress& progress) { display->show(progress); });
}

}  // namespace tovana::tool
