#pragma once

#include "sentence_transformers/tokenizer/expression.h"
#include "sentence_transformers/tokenizer/json_object.h"

namespace tovana::sentence_transformers {

/// The "pattern" of a step: {"String": a text as it stands} or {"Regex": an expression}. Throws
/// ModelFilesError, naming file and member, for another one.
Expression read_pattern(const JsonObject& step);

}  // namespace tovana::sentence_transformers
