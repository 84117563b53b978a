#pragma once

#include <cstddef>
#include <cstdint>

/// What the steps of tokenizer.json beside BERT's have to know of a character: its category, its
/// decompositions, and where grapheme clusters end. Like unicode_tables.h they are the answers of
/// the library that models were trained behind, and not those of the Unicode version that some
/// library on the machine has: a text keeps its ids whatever the machine is upgraded to.
namespace tovana::sentence_transformers::unicode {

/// General categories, and what else a character can be.
enum FormProperty : std::uint16_t {
  kUpperLetter = 1U << 0U,
  kLowerLetter = 1U << 1U,
  kTitleLetter = 1U << 2U,
  kModifierLetter = 1U << 3U,
  kOtherLetter = 1U << 4U,
  kAnyMark = 1U << 5U,
  kNumber = 1U << 6U,
  kAnyPunctuation = 1U << 7U,
  kSymbol = 1U << 8U,
  kSeparator = 1U << 9U,
  kOther = 1U << 10U,           ///< Controls, formats, private use, not assigned.
  kExpressionWord = 1U << 11U,  ///< \w in a set of an expression.
  kDigit = 1U << 12U,           ///< \d of an expression.
  kNumeric = 1U << 13U,         ///< A digit to the step "Digits".
  kAccent = 1U << 14U,          ///< Dropped by the step "StripAccents".
};
inline constexpr std::uint16_t kLetter =
    kUpperLetter | kLowerLetter | kTitleLetter | kModifierLetter | kOtherLetter;

/// What a character does to the boundaries of grapheme clusters (UAX #29). Syllables of Hangul are
/// told by their numbers, and flags need no rule: two letters of one are eight bytes, and what
/// clusters are for here asks only about those of less than six.
enum class Cluster : std::uint8_t {
  other,
  control,
  extend,
  extend_only,  ///< Extends, but is none of what may stand within a conjunct.
  spacing,
  linker,
  joiner,
  prepend,
  pictograph,
  consonant,
  leading,
  vowel,
  trailing,
};

struct FormRecord {
  std::uint16_t properties;
  std::uint8_t cluster_number;
  std::uint8_t combining_class;
  std::uint8_t canonical_size;   ///< 0: it is itself.
  std::uint8_t compatible_size;  ///< The same.
  std::uint16_t canonical_at;    ///< Its full decompositions, in kDecomposed.
  std::uint16_t compatible_at;

  constexpr Cluster cluster() const noexcept { return static_cast<Cluster>(cluster_number); }
  constexpr bool is(std::uint16_t any_of) const noexcept { return (properties & any_of) != 0; }
};

/// Two characters that become one; kCompositions has them in ascending order.
struct Composition {
  char32_t first;
  char32_t second;
  char32_t composed;
};

// unicode_forms.cpp, which is generated.
extern const std::uint16_t kFormBlockOf[];
extern const std::uint16_t kFormRecordOf[];
extern const FormRecord kFormRecords[];
extern const char32_t kDecomposed[];
extern const Composition kCompositions[];
extern const std::size_t kCompositionCount;

/// The record of a code point, at most U+10FFFF.
inline const FormRecord& form_of(char32_t code_point) noexcept {
  constexpr unsigned kBlockBits = 7;
  constexpr char32_t kInBlock = (1U << kBlockBits) - 1;
  const std::uint32_t block = kFormBlockOf[code_point >> kBlockBits];
  return kFormRecords[kFormRecordOf[(block << kBlockBits) + (code_point & kInBlock)]];
}

}  // namespace tovana::sentence_transformers::unicode
