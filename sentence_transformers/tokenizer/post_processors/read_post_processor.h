#pragma once

#include "sentence_transformers/tokenizer/json_object.h"
#include "sentence_transformers/tokenizer/post_processors/special_ends.h"

namespace tovana::sentence_transformers {

/// What the "post_processor" of tokenizer.json puts around a text: at least one token, so that an
/// empty text has a vector. Throws ModelFilesError, naming file and member, for one that is
/// malformed or of a type that is not supported.
SpecialEnds read_post_processor(const JsonObject& tokenizer_json);

}  // namespace tovana::sentence_transformers
