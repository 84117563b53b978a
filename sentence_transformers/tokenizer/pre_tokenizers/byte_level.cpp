#include "sentence_transformers/tokenizer/pre_tokenizers/byte_level.h"

#include <array>
#include <string>

#include "sentence_transformers/tokenizer/characters.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/split.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::string_view kWords =
    "'s|'t|'re|'ve|'m|'ll|'d| ?\\p{L}+| ?\\p{N}+| ?[^\\s\\p{L}\\p{N}]+|\\s+(?!\\S)|\\s+";

/// The character that stands for a byte: itself if that can be printed, else one from U+0100 on.
constexpr std::array<char32_t, 256> characters_of_bytes() {
  std::array<char32_t, 256> characters{};
  char32_t next = 0x100;
  for (char32_t byte = 0; byte < 256; ++byte) {
    const bool is_printable = (byte >= 0x21 && byte <= 0x7E) || (byte >= 0xA1 && byte != 0xAD);
    characters[byte] = is_printable ? byte : next++;
  }
  return characters;
}

}  // namespace

ByteLevel::ByteLevel(bool add_prefix_space, bool use_expression)
    : _add_prefix_space(add_prefix_space) {
  if (use_expression) _words.emplace(kWords);
}

bool ByteLevel::split(const Piece& piece, const PieceSink& sink) const {
  static constexpr std::array<char32_t, 256> kCharacters = characters_of_bytes();
  std::string prefixed;
  std::string_view text = piece.text;
  if (_add_prefix_space && !text.starts_with(' ')) {
    prefixed.append(" ").append(text);
    text = prefixed;
  }
  std::string word;
  const auto on_word = [&](const Piece& part) {
    word.clear();
    for (const char byte : part.text) {
      append_character(word, kCharacters[static_cast<unsigned char>(byte)]);
    }
    return sink({word, part.begins_text});
  };
  if (!_words) return on_word({text, piece.begins_text});
  return split_by(*_words, SplitBehavior::isolated, false, {text, piece.begins_text}, on_word);
}

}  // namespace tovana::sentence_transformers
