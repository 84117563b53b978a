#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace tovana::sentence_transformers {

/// A file in the safetensors format: the header's length, the header and the data.
inline std::string safetensors_file(std::string_view header, std::string_view data) {
  const std::uint64_t size = header.size();
  std::string file(sizeof size, '\0');
  std::memcpy(file.data(), &size, sizeof size);
  return file.append(header).append(data);
}

}  // namespace tovana::sentence_transformers
