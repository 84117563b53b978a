#pragma once

#include "sentence_transformers/tokenizer/special_tokens.h"
#include "sentence_transformers/tokenizer/tokenizer_files.h"
#include "sentence_transformers/tokenizer/tokenizer_settings.h"
#include "sentence_transformers/tokenizer/tokenizer_sources.h"

namespace tovana::sentence_transformers {

/// Builds the steps of a class of tokenizers as that class does, whatever tokenizer.json says of
/// them: of it only the vocabulary counts, and what a class takes besides. `tokens` has all of the
/// class's tokens. Throws ModelFilesError, naming file and fault.
void build_class(const TokenizerSources& sources, TokenizerKind kind, const SpecialTokens& tokens,
                 const TokenizerOptions& options, TokenizerSettings& settings);

}  // namespace tovana::sentence_transformers
