#pragma once

#include <vector>

#include "sentence_transformers/tokenizer/json_object.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/pre_tokenizer.h"

namespace tovana::sentence_transformers {

/// The "pre_tokenizer" of tokenizer.json: its steps in order. Throws ModelFilesError, naming file
/// and member, for one that is malformed or of a type that is not supported.
std::vector<PreTokenizerStep> read_pre_tokenizers(const JsonObject& tokenizer_json);

}  // namespace tovana::sentence_transformers
