#include "json_writer.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "failure.h"
#include "tovana/base/text.h"

namespace tovana::tool {
namespace {

/// "-2.2250738585072014e-308"
constexpr std::size_t kLongestNumber = 24;

/// Strings are escaped in pieces, since escapes may make a piece six times as long.
constexpr std::size_t kPiece = std::size_t{16} * 1024;
constexpr std::size_t kLongestEscape = 6;

/// The letter behind the backslash, or 0 where there is none.
constexpr char short_escape(char character) {
  switch (character) {
    case '"':
    case '\\':
      return character;
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return 0;
  }
}

char* put_character(char* end, char character) {
  const auto byte = static_cast<unsigned char>(character);
  if (byte >= 0x20 && character != '"' && character != '\\') {
    *end++ = character;
    return end;
  }
  *end++ = '\\';
  if (const char letter = short_escape(character); letter != 0) {
    *end++ = letter;
    return end;
  }
  end = std::ranges::copy(std::string_view("u00"), end).out;
  *end++ = kHexDigits[byte >> 4U];
  *end++ = kHexDigits[byte & 0xFU];
  return end;
}

char* put_number(char* end, double value) {
  // Most elements of a hashed vector are zero.
  if (std::bit_cast<std::uint64_t>(value) == 0) {
    *end++ = '0';
    return end;
  }
  if (!std::isfinite(value)) {
    throw Failure(ExitStatus::call_failed,
                  "the backend returned a number that is not finite; leave that text out or use "
                  "another backend");
  }
  return std::to_chars(end, end + kLongestNumber, value).ptr;
}

}  // namespace

void write_json_string(Output& output, std::string_view text) {
  output.write("\"");
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, kPiece);
    char* end = output.room(piece.size() * kLongestEscape);
    for (const char character : piece) end = put_character(end, character);
    output.advance(end);
    text.remove_prefix(piece.size());
  }
  output.write("\"");
}

void write_json_number(Output& output, double value) {
  output.advance(put_number(output.room(kLongestNumber), value));
}

void write_json_vector(Output& output, std::span<const double> vector) {
  char* end = output.room(2 + vector.size() * (kLongestNumber + 1));
  *end++ = '[';
  for (std::size_t i = 0; i < vector.size(); ++i) {
    if (i > 0) *end++ = ',';
    end = put_number(end, vector[i]);
  }
  *end++ = ']';
  output.advance(end);
}

}  // namespace tovana::tool
