#include "sentence_transformers/tokenizer/models/byte_tokens.h"

#include <algorithm>
#include <cstdio>

namespace tovana::sentence_transformers {

ByteTokenIds byte_token_ids(const ByteTrie& vocabulary) {
  ByteTokenIds ids;
  for (unsigned byte = 0; byte < ids.size(); ++byte) {
    char text[8];
    std::snprintf(text, sizeof text, "<0x%02X>", byte);
    ids[byte] = vocabulary.value_of(text).value_or(-1);
  }
  return ids;
}

bool append_byte_tokens(std::string_view text, const ByteTokenIds& tokens,
                        std::vector<std::int32_t>& ids) {
  const auto id_of = [&](char byte) { return tokens[static_cast<unsigned char>(byte)]; };
  if (std::ranges::any_of(text, [&](char byte) { return id_of(byte) < 0; })) return false;
  for (const char byte : text) ids.push_back(id_of(byte));
  return true;
}

}  // namespace tovana::sentence_transformers
