#include "option_values.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

namespace tovana::tool {
namespace {

constexpr std::int64_t kUnbounded = std::numeric_limits<std::int64_t>::max();

/// The number that the whole of `text` is, if it is one.
template <class Number>
std::optional<Number> number_of(const std::string& text) {
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

/// `Value` is a whole number, or an optional one.
template <class Value>
void add_count_option(CLI::App& command, const std::string& name, Value& value,
                      const std::string& description, std::int64_t most = kUnbounded) {
  const auto read = [name, &value, most](const CLI::results_t& given) {
    const std::string& text = given.front();
    const auto number = number_of<std::int64_t>(text);
    if (!number || *number < 1 || *number > most) {
      const std::string range =
          most == kUnbounded ? "of at least 1" : "from 1 to " + std::to_string(most);
      throw CLI::ValidationError(name, "takes a whole number " + range + ", not \"" + text + "\"");
    }
    value = *number;
    return true;
  };
  command.add_option(name, CLI::callback_t(read), description)->type_name("N");
}

}  // namespace

void add_count(CLI::App& command, const std::string& name, std::int64_t& value,
               const std::string& description, std::int64_t most) {
  add_count_option(command, name, value, description, most);
}

void add_count(CLI::App& command, const std::string& name, std::optional<std::int64_t>& value,
               const std::string& description) {
  add_count_option(command, name, value, description);
}

void add_seconds(CLI::App& command, const std::string& name, std::optional<double>& value,
                 const std::string& description) {
  const auto read = [name, &value](const CLI::results_t& given) {
    const std::string& text = given.front();
    const auto number = number_of<double>(text);
    if (!number || !std::isfinite(*number) || *number < 0) {
      throw CLI::ValidationError(name,
                                 "takes a number of seconds, 0 or more, not \"" + text + "\"");
    }
    value = number;
    return true;
  };
  command.add_option(name, CLI::callback_t(read), description)->type_name("S");
}

}  // namespace tovana::tool
