#include "tovana/base/text.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>

namespace tovana {
std::string ascii_lower(std::string_view text) {
  std::string lowered(text);
  for (char& byte : lowered) byte = ascii_lower(byte);
  return lowered;
}

std::string_view trimmed(std::string_view text) noexcept {
  constexpr std::string_view kWhiteSpace = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kWhiteSpace) + 1 - first);
}

std::string with_decimals(double number, int decimals) {
  std::array<char, 512> digits;  // 309 before the point at most
  char* const begin = digits.data();
  return {
      begin,
      std::to_chars(begin, begin + digits.size(), number, std::chars_format::fixed, decimals).ptr};
}

bool is_ascii(std::string_view text) noexcept {
  const char* bytes = text.data();
  std::size_t left = text.size();
  for (; left >= sizeof(std::uint64_t); bytes += sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    if ((word & 0x8080808080808080U) != 0) return false;
    left -= sizeof word;
  }
  for (; left > 0; ++bytes, --left) {
    if ((static_cast<unsigned char>(*bytes) & 0x80U) != 0) return false;
  }
  return true;
}

bool is_well_formed_utf8(std::string_view text) noexcept {
  for (std::size_t position = 0; position < text.size();) {
    const utf8::Decoded character = decode_character(text, position);
    if (!character.well_formed) return false;
    position += character.size;
  }
  return true;
}

std::string repair_utf8(std::string_view text) {
  std::string repaired;
  repaired.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    const utf8::Decoded character = decode_character(text, position);
    repaired +=
        character.well_formed ? text.substr(position, character.size) : kReplacementCharacter;
    position += character.size;
  }
  return repaired;
}

std::size_t count_characters(std::string_view text) noexcept {
  std::size_t count = 0;
  for (std::size_t position = 0; position < text.size(); ++count) {
    position += decode_character(text, position).size;
  }
  return count;
}

std::string escape_control_characters(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    const utf8::Decoded character = decode_character(text, position);
    const std::string_view bytes = text.substr(position, character.size);
    position += character.size;
    const char32_t code_point = character.code_point;
    if (code_point >= 0x20 && (code_point < 0x7F || code_point > 0x9F)) {
      escaped += character.well_formed ? bytes : kReplacementCharacter;
    } else if (code_point == '\n') {
      escaped += "\\n";
    } else if (code_point == '\t') {
      escaped += "\\t";
    } else if (code_point == '\r') {
      escaped += "\\r";
    } else {
      escaped += "\\x";
      escaped += kHexDigits[code_point >> 4U];
      escaped += kHexDigits[code_point & 0xFU];
    }
  }
  return escaped;
}

}  // namespace tovana
