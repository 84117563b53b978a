#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "sentence_transformers/tokenizer/normalizers/bert_normalizer.h"
#include "tovana/base/utf8.h"

namespace tovana::sentence_transformers {

/// Normalizes a text and cuts it into words, in one pass and without an allocation: at white space,
/// which is discarded, and around each punctuation character, which is a word of its own.
class Words {
 public:
  /// Of a longer word only the number of its characters is of use to anyone.
  static constexpr std::size_t kMostCharacters = 1000;

  explicit Words(const BertNormalizer& normalizer) noexcept : _normalizer(normalizer) {}
  Words(const Words&) = delete;
  Words& operator=(const Words&) = delete;

  /// Calls `on_word(word, characters)` for each word of a text: its bytes, valid during the call,
  /// cut off somewhere when there are more than `kMostCharacters`, and its length. Ends early when
  /// `on_word` returns false, and then returns false.
  template <class OnWord>
  bool for_each(std::string_view text, const OnWord& on_word) {
    _start();
    const char* const end = text.data() + text.size();
    for (const char* at = text.data(); at != end;) {
      const std::uint8_t action = _normalizer.action(*at);
      if (action < 0x80) {
        _append(static_cast<char>(action));
        ++at;
      } else if (action == BertNormalizer::kWide) {
        const utf8::Decoded character = utf8::decode(at, end);
        at += character.size;
        bool go_on = true;
        _normalizer.normalize(character.code_point, [&](char32_t code_point) {
          if (go_on) go_on = _add(code_point, on_word);
        });
        if (!go_on) return false;
      } else {
        const char byte = *at++;
        if (action == BertNormalizer::kDrop) continue;
        if (!_finish(on_word)) return false;
        if (action == BertNormalizer::kPunct && !on_word(std::string_view(&byte, 1), 1)) {
          return false;
        }
      }
    }
    return _finish(on_word);
  }

 private:
  void _start() noexcept {
    _next = _bytes.data();
    _characters = 0;
  }

  void _append(char byte) noexcept {
    if (_next != _bytes.data() + kMostBytes) *_next++ = byte;
    ++_characters;
  }

  template <class OnWord>
  bool _add(char32_t code_point, const OnWord& on_word) {
    const unicode::CharacterRecord& record = unicode::record_of(code_point);
    if (record.is(unicode::kWhiteSpace)) return _finish(on_word);
    if (record.is(unicode::kPunctuation)) {
      char bytes[utf8::kLongestCharacter];
      const char* const end = utf8::encode(code_point, bytes);
      return _finish(on_word) && on_word(std::string_view(bytes, end), 1);
    }
    if (_characters < kMostCharacters) _next = utf8::encode(code_point, _next);
    ++_characters;
    return true;
  }

  template <class OnWord>
  bool _finish(const OnWord& on_word) {
    if (_characters == 0) return true;
    const std::string_view word(_bytes.data(), _next);
    const std::size_t characters = _characters;
    _start();
    return on_word(word, characters);
  }

  static constexpr std::size_t kMostBytes = kMostCharacters * utf8::kLongestCharacter;

  const BertNormalizer& _normalizer;
  char* _next = nullptr;
  std::size_t _characters = 0;
  std::array<char, kMostBytes> _bytes;
};

}  // namespace tovana::sentence_transformers
