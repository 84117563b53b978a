#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tovana/base/log_sink.h"

/// Logging with the format and its arguments kept apart until somebody prints them, so that a host
/// can route records, group them by format, or render them its own way.
///
///     constexpr Logger log("engines.embedding");
///     log.info("Embedding backend ready: %s (%.1f s)", name, seconds);
///
/// Formats are printf-style and checked at compile time against the arguments' types: %s takes a
/// text (or an optional one; an empty optional prints as None), %d a whole number, %f and %.Nf a
/// number with a fraction, %% a percent sign. No other conversion exists.
///
/// Any thread may log at any time, also while the process exits, and so may a child that was forked
/// while other threads did. A log call never throws: a record that cannot be made or delivered is
/// dropped.
namespace tovana {

namespace logging_detail {

enum class Conversion { text, whole, real };

template <class T>
constexpr Conversion conversion_of() {
  if constexpr (std::floating_point<T>) {
    return Conversion::real;
  } else if constexpr (std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char>) {
    return Conversion::whole;
  } else {
    static_assert(std::convertible_to<T, std::string_view> ||
                      std::convertible_to<T, std::optional<std::string>>,
                  "a log argument is a text, an optional text, or a number");
    return Conversion::text;
  }
}

/// The conversion that begins behind a percent sign, and the rest of the format behind it.
struct ParsedConversion {
  Conversion kind;
  std::string_view rest;
};

/// Undefined and not constexpr: reaching it while a format is checked is the compile error.
[[noreturn]] void malformed_log_format();

constexpr ParsedConversion parse_conversion(std::string_view rest) {
  if (rest.starts_with('s')) return {Conversion::text, rest.substr(1)};
  if (rest.starts_with('d')) return {Conversion::whole, rest.substr(1)};
  if (rest.starts_with('f')) return {Conversion::real, rest.substr(1)};
  if (rest.size() >= 3 && rest[0] == '.' && rest[1] >= '0' && rest[1] <= '9' && rest[2] == 'f') {
    return {Conversion::real, rest.substr(3)};
  }
  malformed_log_format();
}

/// A format that has been checked against the types of its arguments.
template <class... Arguments>
struct CheckedFormat {
  template <std::size_t N>
  // NOLINTNEXTLINE(google-explicit-constructor): a literal is to pass for a checked format
  consteval CheckedFormat(const char (&literal)[N]) : text(literal, N - 1) {
    const Conversion given[] = {conversion_of<std::remove_cvref_t<Arguments>>()...,
                                Conversion::text};
    std::size_t used = 0;
    for (std::string_view rest = text;;) {
      const std::size_t percent = rest.find('%');
      if (percent == std::string_view::npos) break;
      rest.remove_prefix(percent + 1);
      if (rest.starts_with('%')) {
        rest.remove_prefix(1);
        continue;
      }
      const ParsedConversion conversion = parse_conversion(rest);
      if (used == sizeof...(Arguments) || given[used] != conversion.kind) malformed_log_format();
      ++used;
      rest = conversion.rest;
    }
    if (used != sizeof...(Arguments)) malformed_log_format();
  }

  std::string_view text;
};

template <class T>
LogArgument make_argument(const T& value) {
  if constexpr (conversion_of<T>() == Conversion::real) {
    return static_cast<double>(value);
  } else if constexpr (conversion_of<T>() == Conversion::whole) {
    return static_cast<std::int64_t>(value);
  } else if constexpr (std::convertible_to<T, std::string_view>) {
    return std::string(std::string_view(value));
  } else {
    const std::optional<std::string>& text = value;
    return text ? LogArgument(*text) : LogArgument();
  }
}

}  // namespace logging_detail

/// One module's way to log. `name` is the module's path with dots, "engines.embedding": a string
/// literal, or what else lives for ever.
class Logger {
 public:
  constexpr explicit Logger(std::string_view name) noexcept : _name(name) {}

  template <class... Arguments>
  using Format = logging_detail::CheckedFormat<std::type_identity_t<Arguments>...>;

  template <class... Arguments>
  void debug(Format<Arguments...> format, const Arguments&... arguments) const noexcept {
    _log(LogLevel::debug, nullptr, format.text, arguments...);
  }
  template <class... Arguments>
  void info(Format<Arguments...> format, const Arguments&... arguments) const noexcept {
    _log(LogLevel::info, nullptr, format.text, arguments...);
  }
  template <class... Arguments>
  void warning(Format<Arguments...> format, const Arguments&... arguments) const noexcept {
    _log(LogLevel::warning, nullptr, format.text, arguments...);
  }
  /// A warning with the error that caused it attached to the record.
  template <class... Arguments>
  void warning_with_error(const std::exception& error, Format<Arguments...> format,
                          const Arguments&... arguments) const noexcept {
    _log(LogLevel::warning, &error, format.text, arguments...);
  }

 private:
  template <class... Arguments>
  void _log(LogLevel level, const std::exception* error, std::string_view format,
            const Arguments&... arguments) const noexcept {
    if (!_enabled(level)) return;
    try {
      _deliver(level, error, format, {logging_detail::make_argument(arguments)...});
    } catch (...) {  // out of memory, or a sink that failed: logging must not disturb the work
    }
  }

  static bool _enabled(LogLevel level) noexcept;
  void _deliver(LogLevel level, const std::exception* error, std::string_view format,
                std::vector<LogArgument> arguments) const;

  std::string_view _name;
};

}  // namespace tovana
