#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tovana/engines/embedding/engine/configuration.h"

namespace tovana::embedding {

/// The value of a key that takes a text: null for a null and for no such key. Throws ValueError for
/// a number.
std::optional<std::string> text_value(const EngineConfiguration& config, std::string_view key);

/// The value of a key that takes a whole number: null for a null, for no such key, and for an empty
/// text. Throws ValueError for any other text.
std::optional<std::int64_t> number_value(const EngineConfiguration& config, std::string_view key);

}  // namespace tovana::embedding
