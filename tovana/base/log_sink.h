#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tovana/base/export.h"

/// Where log records go. They arrive with format and arguments kept apart, so that a host can route
/// them, group them by format, or render them its own way.
namespace tovana {

enum class LogLevel { debug, info, warning };

/// What a conversion of the format stands for. Empty: there is no value, printed as None.
using LogArgument = std::variant<std::monostate, std::int64_t, double, std::string>;

struct TOVANA_API LogRecord {
  /// The error that a record reports, beside its text.
  struct ErrorInformation {
    std::string kind;
    std::string message;
  };

  std::string logger;
  LogLevel level;
  std::string_view format;  ///< A string literal: lives for ever.
  std::vector<LogArgument> arguments;
  std::optional<ErrorInformation> error;

  /// The format with its arguments in place. Control characters are left as they are.
  std::string message() const;
};

/// Receives records, on the thread that logged, several threads at a time. What it throws is
/// dropped. The log holds no lock meanwhile: a sink may log, which calls it again, and set another
/// sink. It may ask an engine for its `status()`.
///
/// The work that logged goes on when the sink returns, and may hold what others wait for: the lock
/// of the local model that it loads, and the lock on the cache's file that it fetches, which other
/// processes see. A sink that embeds or loads may therefore wait for itself for ever; so does one
/// that waits for a thread which may be doing either. A slow sink slows down the work.
///
/// Threads of this component's go on while the process exits and may log then: a sink uses nothing
/// that the host destroys at exit.
using LogSink = std::function<void(const LogRecord&)>;

/// The default sink: writes a line to stderr with the time, the level, the logger, the message and
/// the error, control characters escaped.
TOVANA_API void write_to_standard_error(const LogRecord& record);

/// Replaces the sink; an empty one puts the default back. Records that are being delivered at that
/// moment may still reach the old one.
TOVANA_API void set_log_sink(LogSink sink);

/// Records below this level are dropped before their arguments are looked at. Initially `info`.
TOVANA_API void set_log_level(LogLevel level) noexcept;

}  // namespace tovana
