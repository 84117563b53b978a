#include "sentence_transformers/tokenizer/pre_tokenizers/split.h"

#include "sentence_transformers/tokenizer/unicode_forms.h"
#include "sentence_transformers/tokenizer/unicode_tables.h"
#include "tovana/base/utf8.h"

namespace tovana::sentence_transformers {

bool is_punctuation(char32_t code_point) {
  return unicode::record_of(code_point).is(unicode::kPunctuation);
}

bool is_numeric(char32_t code_point) { return unicode::form_of(code_point).is(unicode::kNumeric); }

bool SplitAtCharacters::split(const Piece& piece, const PieceSink& sink) const {
  Splitter<PieceSink> splitter(_behavior, piece, sink);
  const std::string_view text = piece.text;
  for (std::size_t at = 0; at < text.size();) {
    const utf8::Decoded character = utf8::decode(text.data() + at, text.data() + text.size());
    if (_kind(character.code_point)) {
      if (!splitter.add(at, false) || !splitter.add(at + character.size, true)) return false;
    }
    at += character.size;
  }
  return splitter.add(text.size(), false) && splitter.finish();
}

bool Whitespace::split(const Piece& piece, const PieceSink& sink) const {
  enum class Kind { space, word, other };
  const std::string_view text = piece.text;
  const auto give = [&](std::size_t begin, std::size_t end, Kind kind) {
    if (begin == end || kind == Kind::space) return true;
    return sink({text.substr(begin, end - begin), piece.begins_text && begin == 0});
  };
  std::size_t begin = 0;
  Kind kind = Kind::space;
  for (std::size_t at = 0; at < text.size();) {
    const utf8::Decoded character = utf8::decode(text.data() + at, text.data() + text.size());
    const unicode::CharacterRecord& record = unicode::record_of(character.code_point);
    const Kind next = record.is(unicode::kWord)         ? Kind::word
                      : record.is(unicode::kWhiteSpace) ? Kind::space
                                                        : Kind::other;
    if (next != kind) {
      if (!give(begin, at, kind)) return false;
      begin = at;
      kind = next;
    }
    at += character.size;
  }
  return give(begin, text.size(), kind);
}

}  // namespace tovana::sentence_transformers
