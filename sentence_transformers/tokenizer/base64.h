#pragma once

#include <string>
#include <string_view>

namespace tovana::sentence_transformers {

/// The bytes that a text in base64 (RFC 4648, 4, with padding) stands for. Throws ValueError for
/// another text.
std::string decode_base64(std::string_view text);

}  // namespace tovana::sentence_transformers
