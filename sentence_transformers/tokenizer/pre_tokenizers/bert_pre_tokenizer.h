#pragma once

#include "sentence_transformers/tokenizer/pre_tokenizers/pre_tokenizer.h"

namespace tovana::sentence_transformers {

/// BERT's: cuts at white space, which it drops, and around each punctuation character. `Words` does
/// the same in one pass with the normalizer, where nothing else is asked for.
class BertPreTokenizer final : public PreTokenizer {
 public:
  bool split(const Piece& piece, const PieceSink& sink) const override;
};

}  // namespace tovana::sentence_transformers
