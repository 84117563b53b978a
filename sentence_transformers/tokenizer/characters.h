#pragma once

#include <string>
#include <string_view>

#include "tovana/base/utf8.h"

namespace tovana::sentence_transformers {

/// Calls `on_character(code_point, bytes)` for each character of a text, in order.
template <class OnCharacter>
void for_each_character(std::string_view text, const OnCharacter& on_character) {
  const char* const end = text.data() + text.size();
  for (const char* at = text.data(); at != end;) {
    const utf8::Decoded character = utf8::decode(at, end);
    on_character(character.code_point, std::string_view(at, character.size));
    at += character.size;
  }
}

inline void append_character(std::string& text, char32_t code_point) {
  char bytes[utf8::kLongestCharacter];
  text.append(bytes, utf8::encode(code_point, bytes));
}

}  // namespace tovana::sentence_transformers
