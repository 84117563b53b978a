#include "tovana/engines/embedding/backends/tfidf/code_tokens.h"

#include <algorithm>

namespace tovana::embedding {
namespace {

constexpr std::string_view kAsciiWhiteSpace = "\t\n\v\f\r ";
constexpr std::string_view kSeparators = "_-./\\()[]{},;";  // and "::"

/// What a block is meant to be: small enough for the first-level cache, buffers included.
constexpr std::size_t kBlockSize = std::size_t{8} << 10;

constexpr bool is_ascii_upper(char byte) { return byte >= 'A' && byte <= 'Z'; }

}  // namespace

const std::array<CodeTokenizer::Kind, 256> CodeTokenizer::kKinds = [] {
  std::array<Kind, 256> kinds{};
  kinds.fill(Kind::other);
  for (unsigned char letter = 'a'; letter <= 'z'; ++letter) kinds[letter] = Kind::lower;
  for (unsigned char letter = 'A'; letter <= 'Z'; ++letter) kinds[letter] = Kind::upper;
  for (const char byte : kAsciiWhiteSpace) kinds[static_cast<unsigned char>(byte)] = Kind::gap;
  for (const char byte : kSeparators) kinds[static_cast<unsigned char>(byte)] = Kind::gap;
  kinds[':'] = Kind::colon;
  for (unsigned lead = 0xC0; lead <= 0xFF; ++lead) kinds[lead] = Kind::lead;
  return kinds;
}();

std::size_t CodeTokenizer::_block_size(std::string_view text) noexcept {
  if (text.size() <= kBlockSize) return text.size();
  std::size_t end = text.find_last_of(kAsciiWhiteSpace, kBlockSize - 1);
  if (end == std::string_view::npos) end = text.find_first_of(kAsciiWhiteSpace, kBlockSize);
  return end == std::string_view::npos ? text.size() : end + 1;
}

void CodeTokenizer::_lower_case_ascii(std::string_view block) {
  if (_lowered.size() < block.size() + kReadableBehindTerm) {
    _lowered.resize(block.size() + kReadableBehindTerm);
  }
  std::transform(block.begin(), block.end(), _lowered.begin(), [](char byte) {
    return static_cast<char>(byte | (is_ascii_upper(byte) ? 0x20 : 0));
  });
}

std::size_t CodeTokenizer::_lower_case_unicode(std::string_view block) {
  _spaced.clear();
  bool after_lower_case = false;
  for (std::size_t position = 0; position < block.size();) {
    const utf8::Decoded character = decode_character(block, position);
    if (after_lower_case && is_uppercase(character.code_point)) _spaced += ' ';
    _spaced +=
        character.well_formed ? block.substr(position, character.size) : kReplacementCharacter;
    after_lower_case = is_lowercase(character.code_point);
    position += character.size;
  }
  _lowered.clear();
  append_lower_case(_spaced, _lowered);
  const std::size_t size = _lowered.size();
  _lowered.resize(size + kReadableBehindTerm);
  return size;
}

}  // namespace tovana::embedding
