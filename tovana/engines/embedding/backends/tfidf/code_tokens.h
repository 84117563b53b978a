#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tovana/base/text.h"

/// The code-aware tokenizer and the stemmer of the hashing embedder.
///
/// A text is cut at white space, at the separators  _ - . / :: \ ( ) [ ] { } , ;  and between a
/// lower-case character and an upper-case one; the pieces are lower-cased, those of one character
/// dropped, the others stemmed. Lengths are characters, case and white space are Unicode's.
namespace tovana::embedding {

/// How many bytes of a lower-case word, ASCII suffixes cut off, its stem has.
/// `characters` is the word's length in characters. Where the stem's rules come from: the first of
/// the suffixes, in this order, that the word ends with and that leaves three characters or more;
/// only words of five characters or more have one.
inline std::size_t stem_size(std::string_view word, std::size_t characters) noexcept {
  constexpr std::array<std::string_view, 13> kSuffixes = {
      "ation", "ment", "ness", "ting", "ing", "ies", "ion", "ers", "ed", "ly", "er", "es", "s"};
  if (characters < 5) return word.size();
  const char last = word.back();
  for (const std::string_view suffix : kSuffixes) {
    if (suffix.back() == last && characters >= suffix.size() + 3 && word.ends_with(suffix)) {
      return word.size() - suffix.size();
    }
  }
  return word.size();
}

/// Cuts texts into terms. Holds the buffers that one text after another is lower-cased in, so that
/// no token costs an allocation. One thread at a time.
class CodeTokenizer {
 public:
  /// A term's bytes are followed by this many more that may be read, though they mean nothing.
  static constexpr std::size_t kReadableBehindTerm = 8;

  /// Calls `take(std::string_view)` with each term of the text, in order. A term's bytes are gone
  /// when `take` returns. Takes time in proportion to the text's size, and memory for its longest
  /// stretch without white space.
  template <class Take>
  void for_each_term(std::string_view text, Take&& take) {
    while (!text.empty()) {
      const std::string_view block = text.substr(0, _block_size(text));
      text.remove_prefix(block.size());
      if (is_ascii(block)) {
        _lower_case_ascii(block);
        _scan<true>(block.data(), _lowered.data(), block.size(), take);
      } else {
        const std::size_t size = _lower_case_unicode(block);
        _scan<false>(_lowered.data(), _lowered.data(), size, take);
      }
    }
  }

 private:
  /// What an ASCII byte does to the word that it stands in. Of the bytes above ASCII, those that
  /// begin a character are looked up, and those that continue one never end a word.
  enum class Kind : std::uint8_t { other, lower, upper, colon, gap, lead };
  static const std::array<Kind, 256> kKinds;

  /// The size of the text's first block: the text is worked through in blocks that end at white
  /// space, which no word and no context of a case mapping extends across.
  static std::size_t _block_size(std::string_view text) noexcept;

  /// Both make `_lowered` hold the block in lower case and kReadableBehindTerm bytes behind it.
  void _lower_case_ascii(std::string_view block);
  /// Since the mapping may move bytes, it also puts a space at each change from lower to upper
  /// case. Returns the size of the result.
  std::size_t _lower_case_unicode(std::string_view block);

  static Kind _kind_of(char byte) noexcept { return kKinds[static_cast<unsigned char>(byte)]; }

  /// `size` bytes: `source` tells the case, `lowered` is what the terms are made of.
  template <bool kAscii, class Take>
  void _scan(const char* source, const char* lowered, std::size_t size, Take&& take) {
    std::size_t position = 0;
    while (position < size) {
      const std::size_t begin = position;
      std::size_t gap = 0;  // bytes of what ended the word
      for (Kind before = Kind::other; position < size; ++position) {
        const Kind kind = _kind_of(source[position]);
        if (kind > Kind::lower) {  // not a character that the word just continues with
          if (kind == Kind::upper) {
            if (before == Kind::lower) break;
          } else if (kind == Kind::gap) {
            gap = 1;
            break;
          } else if (kind == Kind::colon) {
            if (position + 1 < size && source[position + 1] == ':') {
              gap = 2;
              break;
            }
          } else if constexpr (!kAscii) {
            const utf8::Decoded character = decode_character({source, size}, position);
            if (is_white_space(character.code_point)) {
              gap = character.size;
              break;
            }
          }
        }
        before = kind;
      }
      const std::string_view word(lowered + begin, position - begin);
      position += gap;
      if (word.size() < 2) continue;
      const std::size_t characters = kAscii ? word.size() : count_characters(word);
      if (characters >= 2) take(word.substr(0, stem_size(word, characters)));
    }
  }

  std::string _lowered;
  std::string _spaced;
};

}  // namespace tovana::embedding
