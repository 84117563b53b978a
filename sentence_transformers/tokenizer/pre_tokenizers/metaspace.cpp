#include "sentence_transformers/tokenizer/pre_tokenizers/metaspace.h"

#include <cstddef>
#include <string_view>

namespace tovana::sentence_transformers {

bool Metaspace::split(const Piece& piece, const PieceSink& sink) const {
  std::string marked;
  for (const char byte : piece.text) {
    if (byte == ' ') {
      marked += _mark;
    } else {
      marked += byte;
    }
  }
  const bool prepends =
      _prepend == Prepend::always || (_prepend == Prepend::first && piece.begins_text);
  if (prepends && !marked.starts_with(_mark)) marked.insert(0, _mark);
  if (!_splits) return sink({marked, piece.begins_text});
  const std::string_view text = marked;
  for (std::size_t begin = 0; begin < text.size();) {
    std::size_t end = text.find(_mark, begin + 1);
    if (end == std::string_view::npos) end = text.size();
    if (!sink({text.substr(begin, end - begin), piece.begins_text && begin == 0})) return false;
    begin = end;
  }
  return true;
}

}  // namespace tovana::sentence_transformers
