#include "sentence_transformers/tokenizer/normalizers/plain_normalizers.h"

#include <cstddef>
#include <string_view>

#include "sentence_transformers/tokenizer/characters.h"
#include "sentence_transformers/tokenizer/normalizers/bert_normalizer.h"
#include "sentence_transformers/tokenizer/unicode_forms.h"
#include "sentence_transformers/tokenizer/unicode_tables.h"

namespace tovana::sentence_transformers {
namespace {

bool is_dropped_by_nmt(char32_t code_point) {
  return (code_point >= 0x1 && code_point <= 0x8) || code_point == 0xB ||
         (code_point >= 0xE && code_point <= 0x1F) || code_point == 0x7F || code_point == 0x8F ||
         code_point == 0x9F;
}

bool is_space_to_nmt(char32_t code_point) {
  constexpr std::u32string_view kSpaces =
      U"\u0009\u000A\u000C\u000D\u1680\u200B\u200C\u200D\u200E\u200F\u2028\u2029\u2581\uFEFF\uFFFD";
  return kSpaces.find(code_point) != std::u32string_view::npos;
}

}  // namespace

void Lowercase::normalize(std::string& text) const {
  static const BertNormalizer kLowercase(NormalizerOptions{.lowercase = true});
  text = kLowercase.normalize(text);
}

void StripAccents::normalize(std::string& text) const {
  std::string kept;
  for_each_character(text, [&](char32_t code_point, std::string_view bytes) {
    if (!unicode::form_of(code_point).is(unicode::kAccent)) kept += bytes;
  });
  text = std::move(kept);
}

void Strip::normalize(std::string& text) const {
  std::string_view left = text;
  while (_left && !left.empty()) {
    const utf8::Decoded first = utf8::decode(left.data(), left.data() + left.size());
    if (!unicode::is_white_space(first.code_point)) break;
    left.remove_prefix(first.size);
  }
  while (_right && !left.empty()) {
    const utf8::Decoded last = utf8::decode_last(left);
    if (!unicode::is_white_space(last.code_point)) break;
    left.remove_suffix(last.size);
  }
  text = std::string(left);
}

void Prepend::normalize(std::string& text) const {
  if (!text.empty()) text.insert(0, _prefix);
}

void Replace::normalize(std::string& text) const {
  std::string replaced;
  std::size_t end_before = 0;
  _pattern.for_each_match(text, [&](std::size_t begin, std::size_t end) {
    replaced.append(text, end_before, begin - end_before).append(_content);
    end_before = end;
    return true;
  });
  if (replaced.empty() && end_before == 0) return;
  replaced.append(text, end_before);
  text = std::move(replaced);
}

void Nmt::normalize(std::string& text) const {
  std::string kept;
  for_each_character(text, [&](char32_t code_point, std::string_view bytes) {
    if (is_dropped_by_nmt(code_point)) return;
    kept += is_space_to_nmt(code_point) ? std::string_view(" ") : bytes;
  });
  text = std::move(kept);
}

}  // namespace tovana::sentence_transformers
