#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "sentence_transformers/tokenizer/byte_trie.h"

namespace tovana::sentence_transformers {

/// The ids of the tokens "<0x00>" to "<0xFF>"; -1 for those that a vocabulary lacks.
using ByteTokenIds = std::array<std::int32_t, 256>;

ByteTokenIds byte_token_ids(const ByteTrie& vocabulary);

/// Appends the bytes of a text, if all of them are tokens; or else returns false.
bool append_byte_tokens(std::string_view text, const ByteTokenIds& tokens,
                        std::vector<std::int32_t>& ids);

}  // namespace tovana::sentence_transformers
