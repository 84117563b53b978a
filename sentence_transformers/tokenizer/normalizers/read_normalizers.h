#pragma once

#include <string_view>
#include <vector>

#include "sentence_transformers/tokenizer/json_object.h"
#include "sentence_transformers/tokenizer/normalizers/normalizer.h"

/// Normalizers that tokenizer.json describes. Everything throws ModelFilesError, naming file and
/// member, for one that is malformed or of a type that is not supported.
namespace tovana::sentence_transformers {

/// All of its "normalizer", in order.
std::vector<NormalizerStep> read_normalizers(const JsonObject& tokenizer_json);

/// Only the first map of characters in it; null when there is none.
NormalizerStep read_precompiled(const JsonObject& tokenizer_json);

}  // namespace tovana::sentence_transformers
