#pragma once

#include <string>
#include <utility>

#include "sentence_transformers/tokenizer/pre_tokenizers/pre_tokenizer.h"

namespace tovana::sentence_transformers {

/// SentencePiece's: makes each space a mark that can be seen (U+2581), which begins a word.
class Metaspace final : public PreTokenizer {
 public:
  /// Where a mark is put in front of a piece that does not begin with one.
  enum class Prepend { always, first, never };  ///< first: where the text begins.

  Metaspace(std::string mark, Prepend prepend, bool splits)
      : _mark(std::move(mark)), _prepend(prepend), _splits(splits) {}

  bool split(const Piece& piece, const PieceSink& sink) const override;

 private:
  std::string _mark;
  Prepend _prepend;
  bool _splits;
};

inline constexpr const char* kMetaspaceMark = "\xE2\x96\x81";

}  // namespace tovana::sentence_transformers
