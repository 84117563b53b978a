#include "sentence_transformers/tokenizer/normalizers/bert_normalizer.h"

#include "sentence_transformers/tokenizer/characters.h"
#include "tovana/base/utf8.h"

namespace tovana::sentence_transformers {

BertNormalizer::BertNormalizer(const NormalizerOptions& options) : _options(options) {
  _actions.fill(kWide);
  for (char32_t byte = 0; byte < 0x80; ++byte) {
    _actions[byte] = kDrop;
    normalize(byte, [&](char32_t result) {  // at most one, and ASCII again
      const unicode::CharacterRecord& record = unicode::record_of(result);
      if (record.is(unicode::kWhiteSpace)) {
        _actions[byte] = kSeparator;
      } else if (record.is(unicode::kPunctuation)) {
        _actions[byte] = kPunct;
      } else {
        _actions[byte] = static_cast<std::uint8_t>(result);
      }
    });
  }
}

std::string BertNormalizer::normalize(std::string_view text) const {
  std::string normalized;
  normalized.reserve(text.size());
  const char* const end = text.data() + text.size();
  for (const char* at = text.data(); at != end;) {
    const std::uint8_t ascii = action(*at);
    if (ascii < 0x80) {
      normalized += static_cast<char>(ascii);
      ++at;
      continue;
    }
    const utf8::Decoded character = utf8::decode(at, end);
    at += character.size;
    normalize(character.code_point,
              [&](char32_t code_point) { append_character(normalized, code_point); });
  }
  return normalized;
}

}  // namespace tovana::sentence_transformers
