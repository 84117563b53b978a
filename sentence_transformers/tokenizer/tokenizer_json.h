#pragma once

#include "sentence_transformers/tokenizer/json_object.h"
#include "sentence_transformers/tokenizer/tokenizer_settings.h"

/// The components that tokenizer.json describes. Everything throws ModelFilesError, naming the
/// member, for a component that is missing, malformed or of another kind than is supported.
namespace tovana::sentence_transformers {

/// The model, which has to be WordPiece.
JsonObject word_piece_of(const JsonObject& tokenizer_json);

/// Normalizer, model without its vocabulary, post-processor: into `settings`, as they are.
void read_components(const JsonObject& tokenizer_json, TokenizerSettings& settings);

}  // namespace tovana::sentence_transformers
