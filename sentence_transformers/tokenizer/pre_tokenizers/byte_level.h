#pragma once

#include <optional>

#include "sentence_transformers/tokenizer/expression.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/pre_tokenizer.h"

namespace tovana::sentence_transformers {

/// GPT-2's: makes each byte a printable character, so that every text has tokens. Before that it
/// may put a space in front and cut the piece into words, each with the space before it.
class ByteLevel final : public PreTokenizer {
 public:
  ByteLevel(bool add_prefix_space, bool use_expression);

  bool split(const Piece& piece, const PieceSink& sink) const override;

 private:
  bool _add_prefix_space;
  std::optional<Expression> _words;
};

}  // namespace tovana::sentence_transformers
