#include "npy_writer.h"

#include <bit>
#include <cstring>
#include <string>

namespace tovana::tool {

static_assert(std::endian::native == std::endian::little, "rows are written as they lie in memory");

void write_npy_header(Output& output, std::size_t rows, std::size_t columns, NpyType type) {
  constexpr std::size_t kPrefixSize = 10;  // magic, version, size of what follows
  constexpr std::size_t kAlignment = 64;
  std::string header = "{'descr': '";
  header += type == NpyType::float64 ? "<f8" : "<f4";
  header += "', 'fortran_order': False, 'shape': (" + std::to_string(rows) + ", " +
            std::to_string(columns) + "), }";
  const std::size_t unpadded = kPrefixSize + header.size() + 1;
  header.append((kAlignment - unpadded % kAlignment) % kAlignment, ' ');
  header += '\n';

  std::string prefix = "\x93NUMPY\x01";
  prefix += '\0';
  prefix += static_cast<char>(header.size() & 0xFFU);
  prefix += static_cast<char>(header.size() >> 8U);
  output.write(prefix);
  output.write(header);
}

void write_npy_row(Output& output, std::span<const double> row, NpyType type) {
  if (type == NpyType::float32) {
    char* place = output.room(row.size() * sizeof(float));
    for (const double number : row) {
      const auto rounded = static_cast<float>(number);
      std::memcpy(place, &rounded, sizeof rounded);
      place += sizeof rounded;
    }
    return output.advance(place);
  }
  char* const place = output.room(row.size_bytes());
  std::memcpy(place, row.data(), row.size_bytes());
  output.advance(place + row.size_bytes());
}

}  // namespace tovana::tool
