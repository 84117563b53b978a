#pragma once

#include <string_view>

#include "sentence_transformers/model/transformer_config.h"
#include "sentence_transformers/tokenizer/json_object.h"

namespace tovana::sentence_transformers {

/// The rotary positions that config.json asks for by "rope_scaling" or "rope_parameters" and, where
/// these have no base, by "rope_theta"; `theta` is that of a file without any. Throws
/// ModelFilesError, naming file and member, for a kind of them that is not supported.
RotaryPositions read_rotary(const JsonObject& config, double theta);

/// The same of an object that says it for some layers alone, which may be missing.
RotaryPositions read_rotary(const JsonObject& config, const std::optional<JsonObject>& own,
                            double theta);

}  // namespace tovana::sentence_transformers
