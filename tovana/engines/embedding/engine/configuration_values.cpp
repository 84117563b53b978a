#include "tovana/engines/embedding/engine/configuration_values.h"

#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {
namespace {

const EngineValue* find(const EngineConfiguration& config, std::string_view key) {
  const auto found = config.find(key);
  return found == config.end() ? nullptr : &found->second;
}

}  // namespace

std::optional<std::string> text_value(const EngineConfiguration& config, std::string_view key) {
  const EngineValue* const value = find(config, key);
  if (value == nullptr || std::holds_alternative<std::nullptr_t>(*value)) return std::nullopt;
  if (const auto* const text = std::get_if<std::string>(value)) return *text;
  throw ValueError(std::string(key) + " must be a text, got the number " +
                   std::to_string(std::get<std::int64_t>(*value)));
}

std::optional<std::int64_t> number_value(const EngineConfiguration& config, std::string_view key) {
  const EngineValue* const value = find(config, key);
  if (value == nullptr || std::holds_alternative<std::nullptr_t>(*value)) return std::nullopt;
  if (const auto* const number = std::get_if<std::int64_t>(value)) return *number;
  const auto& text = std::get<std::string>(*value);
  if (text.empty()) return std::nullopt;
  throw ValueError(std::string(key) + " must be a whole number, got the text '" + text + "'");
}

}  // namespace tovana::embedding
