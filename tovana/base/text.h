#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "tovana/base/utf8.h"

/// Texts are `std::string`s in UTF-8, and their lengths are counted in characters (code points).
/// Every function here takes any bytes whatsoever, is pure, and may run on any thread.
namespace tovana {

/// An ASCII capital in lower case; any other byte as it is.
constexpr char ascii_lower(char byte) noexcept {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

/// The text with its ASCII capitals in lower case. For a text of people see `append_lower_case`.
std::string ascii_lower(std::string_view text);

constexpr bool is_ascii_alphanumeric(char byte) noexcept {
  return (byte >= '0' && byte <= '9') || (ascii_lower(byte) >= 'a' && ascii_lower(byte) <= 'z');
}

/// The text without the spaces, tabs and line ends at its two ends: the white space of JSON and of
/// HTTP, not Unicode's.
std::string_view trimmed(std::string_view text) noexcept;

inline constexpr std::string_view kHexDigits = "0123456789abcdef";

/// The number with so many digits behind the point, 0 to 9; without a point for 0. Its exact value
/// is rounded, a tie to the even digit.
std::string with_decimals(double number, int decimals);

/// What an ill-formed sequence becomes: U+FFFD, the replacement character.
inline constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

/// The character that begins at byte `position`, which is below `text.size()`.
inline utf8::Decoded decode_character(std::string_view text, std::size_t position) noexcept {
  return utf8::decode(text.data() + position, text.data() + text.size());
}

bool is_ascii(std::string_view text) noexcept;
bool is_well_formed_utf8(std::string_view text) noexcept;

/// The text with each ill-formed sequence replaced by one U+FFFD.
std::string repair_utf8(std::string_view text);

/// The length in characters; an ill-formed sequence counts as one.
std::size_t count_characters(std::string_view text) noexcept;

/// Properties that the Unicode character database gives a single character: Uppercase, Lowercase
/// and White_Space. They are not the C locale's, and not those of a language's own string type.
bool is_uppercase(char32_t character) noexcept;
bool is_lowercase(char32_t character) noexcept;
bool is_white_space(char32_t character) noexcept;

/// Appends the Unicode default lower-case mapping of `text` to `result`: the full mapping, in which
/// a character may become several and a final sigma is told from another, of no particular
/// language. Since the mapping looks at a character's neighbours, the whole text has to be given at
/// once, or pieces cut at white space. An ill-formed sequence stays as it is.
void append_lower_case(std::string_view text, std::string& result);

/// The text with control characters (C0, DEL, C1) written as \n, \t, \r or \xNN, so that a text
/// from outside stays on its line in a log, a message or a terminal.
std::string escape_control_characters(std::string_view text);

}  // namespace tovana
