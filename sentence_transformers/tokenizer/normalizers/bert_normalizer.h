#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "sentence_transformers/tokenizer/normalizers/normalizer.h"
#include "sentence_transformers/tokenizer/unicode_tables.h"

namespace tovana::sentence_transformers {

/// What the normalizer does, in this order.
struct NormalizerOptions {
  bool lowercase_first = false;       ///< Lower-cases before all else ("do_lower_case" of a model).
  bool clean_text = false;            ///< Drops control characters, makes white space a space.
  bool handle_chinese_chars = false;  ///< Puts spaces around each Chinese character.
  bool strip_accents = false;         ///< Decomposes and drops the non-spacing marks.
  bool lowercase = false;
};

/// The normalizer of BERT. Every character is normalized by itself, so that a text can be
/// normalized and cut into words in one go: lower-casing looks at no neighbours (a final sigma is
/// the same as any other), and of what a decomposition would put in order next to a neighbour only
/// marks remain that are newer than every vocabulary of such models.
///
/// Threads: immutable; any number may use one.
class BertNormalizer {
 public:
  /// What becomes of a byte: itself or its lower case when below 0x80 and part of a word, else one
  /// of these.
  enum Action : std::uint8_t {
    kDrop = 0x80,       ///< Nothing.
    kSeparator = 0x81,  ///< White space: ends a word.
    kPunct = 0x82,      ///< Itself, a word of its own.
    kWide = 0x83,       ///< Begins a character that is not ASCII.
  };

  /// All options off: every character stays what it is.
  BertNormalizer() : BertNormalizer(NormalizerOptions{}) {}
  explicit BertNormalizer(const NormalizerOptions& options);

  std::uint8_t action(char byte) const noexcept {
    return _actions[static_cast<unsigned char>(byte)];
  }

  /// Gives `sink` each code point that one becomes, in order.
  template <class Sink>
  void normalize(char32_t code_point, const Sink& sink) const {
    if (!_options.lowercase_first) return _clean(code_point, sink);
    _lower(code_point, [&](char32_t lowered) { _clean(lowered, sink); });
  }

  /// The whole text, normalized; ill-formed sequences are read as U+FFFD.
  std::string normalize(std::string_view text) const;

 private:
  template <class Sink>
  void _clean(char32_t code_point, const Sink& sink) const {
    const unicode::CharacterRecord& record = unicode::record_of(code_point);
    if (_options.clean_text) {
      if (record.is(unicode::kRemoved)) return;
      if (record.is(unicode::kToSpace)) return sink(U' ');
    }
    const bool padded = _options.handle_chinese_chars && record.is(unicode::kChinese);
    if (padded) sink(U' ');
    _strip(code_point, record, sink);
    if (padded) sink(U' ');
  }

  template <class Sink>
  void _strip(char32_t code_point, const unicode::CharacterRecord& record, const Sink& sink) const {
    const auto finish = [&](char32_t stripped) {
      if (_options.lowercase) return _lower(stripped, sink);
      sink(stripped);
    };
    if (!_options.strip_accents) return finish(code_point);
    if (record.is(unicode::kMark)) return;
    if (code_point >= unicode::kFirstHangulSyllable && code_point <= unicode::kLastHangulSyllable) {
      return _decompose_hangul(code_point - unicode::kFirstHangulSyllable, sink);
    }
    if (record.stripped_size == 0) return finish(code_point);
    for (unsigned i = 0; i < record.stripped_size; ++i) {
      finish(unicode::kStripped[record.stripped_at + i]);
    }
  }

  /// The Unicode Standard, 3.12; jamo have no case.
  template <class Sink>
  static void _decompose_hangul(char32_t syllable, const Sink& sink) {
    constexpr char32_t kVowels = 21;
    constexpr char32_t kTrailing = 28;
    sink(0x1100 + syllable / (kVowels * kTrailing));
    sink(0x1161 + syllable / kTrailing % kVowels);
    if (syllable % kTrailing != 0) sink(0x11A7 + syllable % kTrailing);
  }

  template <class Sink>
  static void _lower(char32_t code_point, const Sink& sink) {
    const std::int32_t offset = unicode::record_of(code_point).lower_offset;
    sink(static_cast<char32_t>(static_cast<std::int32_t>(code_point) + offset));
    if (code_point == unicode::kDottedCapitalI) sink(unicode::kDotAbove);
  }

  NormalizerOptions _options;
  std::array<std::uint8_t, 256> _actions = {};
};

/// It as a step among others.
class BertNormalizerStep final : public Normalizer {
 public:
  explicit BertNormalizerStep(const NormalizerOptions& options)
      : _options(options), _normalizer(options) {}

  void normalize(std::string& text) const override { text = _normalizer.normalize(text); }
  const NormalizerOptions& options() const noexcept { return _options; }

 private:
  NormalizerOptions _options;
  BertNormalizer _normalizer;
};

}  // namespace tovana::sentence_transformers
