#include "tovana/base/logging.h"

#include <array>
#include <atomic>
#include <charconv>
#include <map>
#include <memory>

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "tovana/base/mutex.h"
#include "tovana/base/text.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana {
namespace {

using logging_detail::Conversion;

std::string formatted_number(double value, int decimals) {
  std::array<char, 512> digits;  // 309 before the point at most, and nine behind it
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value,
                                 std::chars_format::fixed, decimals)
                       .ptr;
  return {digits.data(), end};
}

/// How many digits a conversion asks for behind the point; "%f" asks for printf's six.
int decimals_of(std::string_view conversion) {
  return conversion.starts_with('.') ? conversion[1] - '0' : 6;
}

struct ArgumentPrinter {
  std::string_view conversion;

  std::string operator()(std::monostate) const { return "None"; }
  std::string operator()(std::int64_t value) const { return std::to_string(value); }
  std::string operator()(double value) const {
    return formatted_number(value, decimals_of(conversion));
  }
  std::string operator()(const std::string& value) const { return value; }
};

/// Writes lines to stderr through spdlog. The logger is made directly, never registered: spdlog's
/// registry is destroyed at exit, while another thread may still be logging.
class StandardErrorSink {
 public:
  StandardErrorSink() : _logger("tovana", std::make_shared<spdlog::sinks::stderr_sink_mt>()) {
    _logger.set_level(spdlog::level::debug);
    _logger.set_pattern("%Y-%m-%d %H:%M:%S.%e %l %v");
  }

  void operator()(const LogRecord& record) {
    std::string line = record.logger + ": " + record.message();
    if (record.error && line.find(record.error->message) == std::string::npos) {
      line += " (" + record.error->kind + ": " + record.error->message + ")";
    }
    _logger.log(spdlog_level(record.level), "{}", escape_control_characters(line));
  }

 private:
  static spdlog::level::level_enum spdlog_level(LogLevel level) {
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

  spdlog::logger _logger;
};

/// Everything that is shared between loggers. Never destroyed: threads log while the process exits.
struct LogState {
  std::atomic<LogLevel> level = LogLevel::info;
  Mutex mutex;
  std::shared_ptr<const LogSink> sink TOVANA_GUARDED_BY(mutex);
  std::map<std::string, std::unique_ptr<const Logger>, std::less<>> loggers
      TOVANA_GUARDED_BY(mutex);
};

LogState& log_state() {
  static auto* const state = new LogState;
  return *state;
}

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
  static auto* const sink = new StandardErrorSink;  // never destroyed, like everything here
  (*sink)(record);
}

void set_log_sink(LogSink sink) {
  auto shared = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  LogState& state = log_state();
  // The old sink leaves with `shared`, after the lock: its destructor may be anybody's code.
  const LockGuard lock(state.mutex);
  state.sink.swap(shared);
}

void set_log_level(LogLevel level) noexcept { log_state().level = level; }

namespace logging_detail {
// Called only for a format that no compiler has checked, which nothing here makes.
void malformed_log_format() { throw RuntimeError("malformed log format"); }
}  // namespace logging_detail

bool Logger::enabled(LogLevel level) noexcept { return level >= log_state().level; }

void Logger::deliver(LogLevel level, const std::exception* error, std::string_view format,
                     std::vector<LogArgument> arguments) const {
  std::shared_ptr<const LogSink> sink;
  {
    LogState& state = log_state();
    const LockGuard lock(state.mutex);
    sink = state.sink;
  }
  LogRecord record{_name, level, format, std::move(arguments), std::nullopt};
  if (error != nullptr) {
    record.error = LogRecord::ErrorInformation{error_kind(*error), error->what()};
  }
  if (sink != nullptr) {
    (*sink)(record);
  } else {
    write_to_standard_error(record);
  }
}

const Logger& logger(std::string_view name) {
  LogState& state = log_state();
  const LockGuard lock(state.mutex);
  const auto found = state.loggers.find(name);
  if (found != state.loggers.end()) return *found->second;
  return *state.loggers
              .emplace(std::string(name), std::make_unique<const Logger>(std::string(name)))
              .first->second;
}

}  // namespace tovana
