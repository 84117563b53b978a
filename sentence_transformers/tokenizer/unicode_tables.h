#pragma once

#include <cstdint>

/// What the BERT normalizer and pre-tokenizer have to know of a character. The data are not those
/// of one Unicode version: models were trained behind a library that carries general categories of
/// about Unicode 8, decompositions of about 12 and lower-casing of 16, and a character that a newer
/// database calls punctuation would be cut where the model never saw a cut.
namespace tovana::sentence_transformers::unicode {

enum Property : std::uint8_t {
  kRemoved = 1U << 0U,      ///< Dropped by clean_text: controls, formats, private use, U+FFFD.
  kToSpace = 1U << 1U,      ///< Made a space by clean_text.
  kChinese = 1U << 2U,      ///< Gets a space on either side from handle_chinese_chars.
  kWhiteSpace = 1U << 3U,   ///< Separates words.
  kPunctuation = 1U << 4U,  ///< A word of its own.
  kMark = 1U << 5U,         ///< A non-spacing mark, dropped by strip_accents.
  kWord = 1U << 6U,         ///< A word character to an added token of single words (\w).
};

struct CharacterRecord {
  std::uint8_t properties;
  std::uint8_t stripped_size;  ///< 0: decomposed, it is itself.
  std::uint16_t stripped_at;   ///< Its canonical decomposition without marks, in kStripped.
  std::int32_t lower_offset;   ///< To its lower-case character.

  constexpr bool is(Property property) const noexcept { return (properties & property) != 0; }
};

// unicode_tables.cpp, which is generated.
extern const std::uint8_t kBlockOf[];
extern const std::uint16_t kRecordOf[];
extern const CharacterRecord kRecords[];
extern const char32_t kStripped[];

/// The record of a code point, at most U+10FFFF.
inline const CharacterRecord& record_of(char32_t code_point) noexcept {
  constexpr unsigned kBlockBits = 7;
  constexpr char32_t kInBlock = (1U << kBlockBits) - 1;
  const std::uint32_t block = kBlockOf[code_point >> kBlockBits];
  return kRecords[kRecordOf[(block << kBlockBits) + (code_point & kInBlock)]];
}

inline bool is_white_space(char32_t code_point) noexcept {
  return record_of(code_point).is(kWhiteSpace);
}

/// The one character whose lower case is two, "i" and U+0307.
inline constexpr char32_t kDottedCapitalI = 0x130;
inline constexpr char32_t kDotAbove = 0x307;

inline constexpr char32_t kFirstHangulSyllable = 0xAC00;
inline constexpr char32_t kLastHangulSyllable = 0xD7A3;

}  // namespace tovana::sentence_transformers::unicode
