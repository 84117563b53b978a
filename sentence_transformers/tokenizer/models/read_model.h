#pragma once

#include <cstdint>
#include <string_view>

#include "sentence_transformers/tokenizer/json_object.h"
#include "sentence_transformers/tokenizer/models/byte_pair_encoding.h"
#include "sentence_transformers/tokenizer/models/model.h"

/// The "model" of tokenizer.json. Everything throws ModelFilesError, naming file and member, for
/// one that is malformed or of another kind than is asked for.
namespace tovana::sentence_transformers {

/// The model with what it says of itself.
ModelStep read_model(const JsonObject& tokenizer_json);

/// Its member; `type` is the type that it has to have.
JsonObject model_of(const JsonObject& tokenizer_json, std::string_view type);

/// Its vocabulary, and where there is one its list of merges, with these options and no others.
ModelStep make_byte_pair_encoding(const JsonObject& model, const BytePairOptions& options);
ModelStep make_unigram(const JsonObject& model, std::int32_t unknown_id, bool byte_fallback);

}  // namespace tovana::sentence_transformers
