// What takes Unicode's data, and so ICU: apart from the rest of text.h, so that who needs none of it
// is not linked with ICU.

#include <cstdint>

#include <unicode/ucasemap.h>
#include <unicode/uchar.h>

#include "tovana/base/process_once.h"
#include "tovana/base/text.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana {
namespace {

/// How much ICU, which counts bytes in 32 bits, is given at a time.
constexpr std::size_t kCaseMapPiece = std::size_t{1} << 20;

/// The case mapping of no language. Null names the process's own locale instead, in which a Turkish
/// user's "I" would become a dotless "ı".
const UCaseMap& root_case_map() {
  static constinit ProcessOnce once;
  static constinit const UCaseMap* map = nullptr;
  once.call([] {
    UErrorCode status = U_ZERO_ERROR;
    const UCaseMap* const opened = ucasemap_open("", U_FOLD_CASE_DEFAULT, &status);
    if (U_FAILURE(status)) throw RuntimeError(std::string("ICU: ") + u_errorName(status));
    map = opened;
  });
  return *map;
}

bool has(UProperty property, char32_t character) {
  return u_hasBinaryProperty(static_cast<UChar32>(character), property) != 0;
}

/// Whether the next character that case mapping does not pass over is a letter that has a case.
bool cased_letter_follows(std::string_view text, std::size_t position) {
  while (position < text.size()) {
    const utf8::Decoded next = decode_character(text, position);
    if (!has(UCHAR_CASE_IGNORABLE, next.code_point)) return has(UCHAR_CASED, next.code_point);
    position += next.size;
  }
  return false;
}

/// Appends ICU's mapping of a text that it can measure.
void append_lower_case_piece(std::string_view text, std::string& result) {
  const std::size_t start = result.size();
  // At most 1.5 times as long: two bytes become three, as in U+0130 and U+023A.
  const std::size_t room = text.size() + text.size() / 2;
  result.resize(start + room);
  UErrorCode status = U_ZERO_ERROR;
  const std::int32_t size =
      ucasemap_utf8ToLower(&root_case_map(), result.data() + start, static_cast<std::int32_t>(room),
                           text.data(), static_cast<std::int32_t>(text.size()), &status);
  result.resize(start + (U_SUCCESS(status) ? static_cast<std::size_t>(size) : 0));
  if (U_FAILURE(status)) throw RuntimeError(std::string("ICU: ") + u_errorName(status));
}

/// The same for any length. Only the capital sigma is mapped by its neighbours; it is put in lower
/// case here, so that pieces may end anywhere.
void append_lower_case_by_pieces(std::string_view text, std::string& result) {
  constexpr char32_t kCapitalSigma = U'\u03A3';
  std::string piece;
  bool follows_cased_letter = false;
  for (std::size_t position = 0; position < text.size();) {
    const utf8::Decoded character = decode_character(text, position);
    const std::size_t end = position + character.size;
    if (character.code_point == kCapitalSigma) {
      const bool is_final = follows_cased_letter && !cased_letter_follows(text, end);
      piece += is_final ? "\u03C2" : "\u03C3";
    } else {
      piece += text.substr(position, character.size);
    }
    if (!has(UCHAR_CASE_IGNORABLE, character.code_point)) {
      follows_cased_letter = has(UCHAR_CASED, character.code_point);
    }
    position = end;
    if (piece.size() >= kCaseMapPiece || position == text.size()) {
      append_lower_case_piece(piece, result);
      piece.clear();
    }
  }
}

}  // namespace

bool is_uppercase(char32_t character) noexcept {
  return u_isUUppercase(static_cast<UChar32>(character)) != 0;
}

bool is_lowercase(char32_t character) noexcept {
  return u_isULowercase(static_cast<UChar32>(character)) != 0;
}

bool is_white_space(char32_t character) noexcept {
  return u_isUWhiteSpace(static_cast<UChar32>(character)) != 0;
}

void append_lower_case(std::string_view text, std::string& result) {
  if (text.size() <= kCaseMapPiece) {
    append_lower_case_piece(text, result);
  } else {
    append_lower_case_by_pieces(text, result);
  }
}

}  // namespace tovana
