#include "sentence_transformers/tokenizer/normalizers/unicode_normalizer.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "sentence_transformers/tokenizer/characters.h"
#include "sentence_transformers/tokenizer/unicode_forms.h"
#include "sentence_transformers/tokenizer/unicode_tables.h"
#include "tovana/base/text.h"

namespace tovana::sentence_transformers {
namespace {

// Hangul is decomposed and composed by arithmetic (The Unicode Standard, 3.12).
constexpr char32_t kLeading = 0x1100;
constexpr char32_t kVowel = 0x1161;
constexpr char32_t kTrailing = 0x11A7;  // One before the first.
constexpr char32_t kLeadings = 19;
constexpr char32_t kVowels = 21;
constexpr char32_t kTrailings = 28;
constexpr char32_t kSyllables = kLeadings * kVowels * kTrailings;

struct Character {
  char32_t code_point;
  std::uint8_t combining_class;
};

/// Decomposed characters in canonical order.
class Decomposition {
 public:
  void add(char32_t code_point, bool compatible) {
    if (code_point - unicode::kFirstHangulSyllable < kSyllables) {
      const char32_t syllable = code_point - unicode::kFirstHangulSyllable;
      _put(kLeading + syllable / (kVowels * kTrailings));
      _put(kVowel + syllable / kTrailings % kVowels);
      if (syllable % kTrailings != 0) _put(kTrailing + syllable % kTrailings);
      return;
    }
    const unicode::FormRecord& record = unicode::form_of(code_point);
    const unsigned size = compatible ? record.compatible_size : record.canonical_size;
    const unsigned at = compatible ? record.compatible_at : record.canonical_at;
    if (size == 0) _put(code_point);
    for (unsigned i = 0; i < size; ++i) _put(unicode::kDecomposed[at + i]);
  }

  std::vector<Character>& characters() {
    _order();
    return _characters;
  }

 private:
  void _put(char32_t code_point) {
    const std::uint8_t combining_class = unicode::form_of(code_point).combining_class;
    if (combining_class == 0) _order();
    _characters.push_back({code_point, combining_class});
    if (combining_class == 0) _marks = _characters.size();
  }

  /// Sorts the marks behind the last character that is none.
  void _order() {
    const auto first = _characters.begin() + static_cast<std::ptrdiff_t>(_marks);
    if (_characters.end() - first > 1) {
      std::stable_sort(first, _characters.end(), [](const Character& a, const Character& b) {
        return a.combining_class < b.combining_class;
      });
    }
    _marks = _characters.size();
  }

  std::vector<Character> _characters;
  std::size_t _marks = 0;
};

std::optional<char32_t> composed(char32_t first, char32_t second) {
  if (first - kLeading < kLeadings && second - kVowel < kVowels) {
    return unicode::kFirstHangulSyllable +
           ((first - kLeading) * kVowels + second - kVowel) * kTrailings;
  }
  const char32_t syllable = first - unicode::kFirstHangulSyllable;
  if (syllable < kSyllables && syllable % kTrailings == 0 &&
      second - kTrailing - 1 < kTrailings - 1) {
    return first + (second - kTrailing);
  }
  const auto* const begin = unicode::kCompositions;
  const auto* const end = begin + unicode::kCompositionCount;
  const auto* const found = std::lower_bound(
      begin, end, std::pair(first, second),
      [](const unicode::Composition& entry, const std::pair<char32_t, char32_t>& pair) {
        return std::pair(entry.first, entry.second) < pair;
      });
  if (found == end || found->first != first || found->second != second) return std::nullopt;
  return found->composed;
}

/// Joins each character with the last one before it that is no mark, unless what lies between keeps
/// them apart.
void compose(std::vector<Character>& characters) {
  std::size_t kept = 0;
  std::optional<std::size_t> starter;
  std::uint8_t last_class = 0;
  for (const Character& character : characters) {
    const bool reaches = starter && (last_class == 0 || last_class < character.combining_class);
    if (reaches) {
      Character& first = characters[*starter];
      if (const auto one = composed(first.code_point, character.code_point)) {
        first.code_point = *one;
        continue;
      }
    }
    if (character.combining_class == 0) starter = kept;
    last_class = character.combining_class;
    characters[kept++] = character;
  }
  characters.resize(kept);
}

}  // namespace

void UnicodeNormalizer::normalize(std::string& text) const {
  if (is_ascii(text)) return;
  const bool compatible = _form == UnicodeForm::nfkc || _form == UnicodeForm::nfkd;
  Decomposition decomposition;
  for_each_character(text, [&](char32_t code_point, std::string_view) {
    decomposition.add(code_point, compatible);
  });
  std::vector<Character>& characters = decomposition.characters();
  if (_form == UnicodeForm::nfc || _form == UnicodeForm::nfkc) compose(characters);
  text.clear();
  for (const Character& character : characters) append_character(text, character.code_point);
}

}  // namespace tovana::sentence_transformers
