#include "sentence_transformers/tokenizer/pre_tokenizers/bert_pre_tokenizer.h"

#include "sentence_transformers/tokenizer/pre_tokenizers/split.h"
#include "sentence_transformers/tokenizer/unicode_tables.h"

namespace tovana::sentence_transformers {

bool BertPreTokenizer::split(const Piece& piece, const PieceSink& sink) const {
  static const SplitAtCharacters kSpace(unicode::is_white_space, SplitBehavior::removed);
  static const SplitAtCharacters kPunctuation(is_punctuation, SplitBehavior::isolated);
  return kSpace.split(piece, [&](const Piece& word) { return kPunctuation.split(word, sink); });
}

}  // namespace tovana::sentence_transformers
