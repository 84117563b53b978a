#include "tovana/base/logging.h"

#include <atomic>
#include <cstdio>
#include <memory>
#include <utility>

#include <spdlog/pattern_formatter.h>

#include "tovana/base/held_across_forks.h"
#include "tovana/base/mutex.h"
#include "tovana/base/text.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana {
namespace {

using logging_detail::Conversion;

/// How many digits a conversion asks for behind the point; "%f" asks for printf's six.
int decimals_of(std::string_view conversion) {
  return conversion.starts_with('.') ? conversion[1] - '0' : 6;
}

struct ArgumentPrinter {
  std::string_view conversion;

  std::string operator()(std::monostate) const { return "None"; }
  std::string operator()(std::int64_t value) const { return std::to_string(value); }
  std::string operator()(double value) const {
    return with_decimals(value, decimals_of(conversion));
  }
  std::string operator()(const std::string& value) const { return value; }
};

spdlog::level::level_enum spdlog_level(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return spdlog::level::debug;
    case LogLevel::info:
      return spdlog::level::info;
    case LogLevel::warning:
      break;
  }
  return spdlog::level::warn;
}

/// Bytes in front of a message, and the end of the line.
constexpr std::size_t kLongestPrefix = 64;

/// Held only for moments: nothing is written, and no foreign code runs under it.
constinit Mutex log_mutex;

const HeldAcrossForks<log_mutex> log_mutex_is_held_across_forks;

/// What all loggers share. Never destroyed: threads log while the process exits. Of spdlog it has
/// the line's layout alone: spdlog's sinks hold a lock while they write, which a child that is
/// forked meanwhile would wait for for ever, and its registry is destroyed at exit.
struct LogState {
  std::atomic<LogLevel> level = LogLevel::info;
  std::shared_ptr<const LogSink> sink TOVANA_GUARDED_BY(log_mutex);
  spdlog::pattern_formatter layout TOVANA_GUARDED_BY(log_mutex){"%Y-%m-%d %H:%M:%S.%e %l %v"};
};

LogState& log_state() {
  static auto* const state = new LogState;
  return *state;
}

/// Made when the program is loaded: before the first fork.
[[maybe_unused]] const LogState& state_at_load = log_state();

}  // namespace

std::string LogRecord::message() const {
  std::string text;
  std::size_t next = 0;
  std::string_view rest = format;
  for (;;) {
    const std::size_t percent = rest.find('%');
    text += rest.substr(0, percent);
    if (percent == std::string_view::npos) return text;
    rest.remove_prefix(percent + 1);
    if (rest.starts_with('%')) {
      text += '%';
      rest.remove_prefix(1);
      continue;
    }
    text += std::visit(ArgumentPrinter{rest}, arguments.at(next++));
    rest = logging_detail::parse_conversion(rest).rest;
  }
}

void write_to_standard_error(const LogRecord& record) {
  std::string text = record.logger + ": " + record.message();
  if (record.error && text.find(record.error->message) == std::string::npos) {
    text += " (" + record.error->kind + ": " + record.error->message + ")";
  }
  text = escape_control_characters(text);
  spdlog::memory_buf_t line;
  line.reserve(text.size() + kLongestPrefix);
  {
    LogState& state = log_state();
    const LockGuard lock(log_mutex);
    // Asks for the local time, for which the C library has a lock that it does not hold in a fork.
    state.layout.format({{}, spdlog_level(record.level), text}, line);
  }
  // Where stderr takes nothing there is nobody to tell.
  static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
  static_cast<void>(std::fflush(stderr));
}

void set_log_sink(LogSink sink) {
  auto shared = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  LogState& state = log_state();
  // The old sink leaves with `shared`, after the lock: its destructor may be anybody's code.
  const LockGuard lock(log_mutex);
  state.sink.swap(shared);
}

void set_log_level(LogLevel level) noexcept { log_state().level = level; }

namespace logging_detail {
// Called only for a format that no compiler has checked, which nothing here makes.
void malformed_log_format() { throw RuntimeError("malformed log format"); }
}  // namespace logging_detail

bool Logger::_enabled(LogLevel level) noexcept { return level >= log_state().level; }

void Logger::_deliver(LogLevel level, const std::exception* error, std::string_view format,
                      std::vector<LogArgument> arguments) const {
  std::shared_ptr<const LogSink> sink;
  {
    LogState& state = log_state();
    const LockGuard lock(log_mutex);
    sink = state.sink;
  }
  LogRecord record{std::string(_name), level, format, std::move(arguments), std::nullopt};
  if (error != nullptr) {
    record.error = LogRecord::ErrorInformation{error_kind(*error), error->what()};
  }
  if (sink != nullptr) {
    (*sink)(record);
  } else {
    write_to_standard_error(record);
  }
}

}  // namespace tovana
