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

/// `kind` says what it takes, finite and not below `lowest`.
void add_real_option(CLI::App& command, const std::string& name, std::optional<double>& value,
                     double lowest, const std::string& kind, const std::string& description) {
  const auto read = [name, lowest, kind, &value](const CLI::results_t& given) {
    const std::string& text = given.front();
    const auto number = number_of<double>(text);
    if (!number || !std::isfinite(*number) || *number < lowest) {
      throw CLI::ValidationError(name, "takes " + kind + ", not \"" + text + "\"");
    }
    value = number;
    return true;
  };
  command.add_option(name, CLI::callback_t(read), description)->type_name("S");
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
  add_real_option(command, name, value, 0, "a number of seconds, 0 or more", description);
}

void add_number(CLI::App& command, const std::string& name, std::optional<double>& value,
                const std::string& description) {
  add_real_option(command, name, value, -std::numeric_limits<double>::max(), "a number",
                  description);
}

CLI::Option* add_names(CLI::App& command, const std::string& name, std::vector<std::string>& names,
                       const std::string& description) {
  // Taken as they are: the parser would make two of "[a,b]".
  const auto take = [&names](const CLI::results_t& given) {
    names = given;
    return true;
  };
  return command.add_option(name, CLI::callback_t(take), description)
      ->option_text("NAME")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->allow_extra_args(false);
}

}  // namespace tovana::tool
