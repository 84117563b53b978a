#pragma once

#include <cstddef>
#include <string_view>

/// UTF-8, decoded and encoded inline, since tokenizers do it in their innermost loops. The one
/// decoder of the project.
namespace tovana::utf8 {

/// What some programs write at the start of a text, and JSON does not have.
inline constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

/// One step through a text.
struct Decoded {
  char32_t code_point;  ///< U+FFFD for an ill-formed sequence.
  std::size_t size;     ///< Bytes it takes, at least 1.
  bool well_formed;
};

/// The character at `at`, which is before `end`. An ill-formed sequence ends where the maximal
/// subpart of a well-formed one ends (The Unicode Standard, 3.9, "U+FFFD Substitution of Maximal
/// Subparts"; the WHATWG decoder does the same).
inline Decoded decode(const char* at, const char* end) noexcept {
  constexpr char32_t kReplacement = 0xFFFD;
  const auto byte = [at](std::size_t i) { return static_cast<unsigned char>(at[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return {lead, 1, true};
  // The second byte's range keeps overlong forms, surrogates and what is beyond U+10FFFF out.
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  std::size_t size = 0;
  char32_t code_point = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    size = 2;
    code_point = lead & 0x1FU;
  } else if ((lead & 0xF0U) == 0xE0) {
    size = 3;
    code_point = lead & 0xFU;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    size = 4;
    code_point = lead & 0x7U;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return {kReplacement, 1, false};
  }
  const auto left = static_cast<std::size_t>(end - at);
  for (std::size_t i = 1; i < size; ++i) {
    if (i == left || byte(i) < low || byte(i) > high) return {kReplacement, i, false};
    code_point = (code_point << 6U) | (byte(i) & 0x3FU);
    low = 0x80;
    high = 0xBF;
  }
  return {code_point, size, true};
}

/// The last character of a text that is not empty.
inline Decoded decode_last(std::string_view text) noexcept {
  const char* const end = text.data() + text.size();
  for (std::size_t size = 2; size <= 4 && size <= text.size(); ++size) {
    const Decoded decoded = decode(end - size, end);
    if (decoded.size == size) return decoded;
  }
  return decode(end - 1, end);
}

inline constexpr std::size_t kLongestCharacter = 4;

/// Writes a code point, up to `kLongestCharacter` bytes; returns the end of what was written.
inline char* encode(char32_t code_point, char* out) noexcept {
  const auto put = [&out](char32_t byte) { *out++ = static_cast<char>(byte); };
  if (code_point < 0x80) {
    put(code_point);
  } else if (code_point < 0x800) {
    put(0xC0U | (code_point >> 6U));
    put(0x80U | (code_point & 0x3FU));
  } else if (code_point < 0x10000) {
    put(0xE0U | (code_point >> 12U));
    put(0x80U | ((code_point >> 6U) & 0x3FU));
    put(0x80U | (code_point & 0x3FU));
  } else {
    put(0xF0U | (code_point >> 18U));
    put(0x80U | ((code_point >> 12U) & 0x3FU));
    put(0x80U | ((code_point >> 6U) & 0x3FU));
    put(0x80U | (code_point & 0x3FU));
  }
  return out;
}

}  // namespace tovana::utf8
