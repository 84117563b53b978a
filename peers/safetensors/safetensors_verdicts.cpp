// Says of each file of a list what the safetensors reader makes of it. Standard input holds files,
// each behind its length (64 bits, little-endian); a line answers each: "accepted" and, by name,
// the tensors as NAME DTYPE SHAPE BYTES, or "refused" and the fault. Names are hexadecimal.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <span>
#include <string>

#include "sentence_transformers/weights/safetensors.h"
#include "tovana/exceptions/exceptions.h"

namespace st = tovana::sentence_transformers;

namespace {

std::string hexadecimal(std::span<const std::byte> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const std::byte byte : bytes) {
    text += kDigits[std::to_integer<std::size_t>(byte >> 4U)];
    text += kDigits[std::to_integer<std::size_t>(byte & std::byte{15})];
  }
  return text;
}

std::string verdict(const std::string& file) {
  try {
    std::string line = "accepted";
    const std::span<const std::byte> bytes = std::as_bytes(std::span(file));
    for (const auto& [name, tensor] : st::parse_safetensors(bytes, bytes.size())) {
      line += " " + hexadecimal(std::as_bytes(std::span(name))) + ":" +
              std::string(st::dtype_name(tensor.dtype)) + ":";
      for (const std::int64_t extent : tensor.shape) line += std::to_string(extent) + ",";
      line += ":" + hexadecimal(bytes.subspan(tensor.offset, tensor.size));
    }
    return line;
  } catch (const tovana::ValueError& error) {
    return std::string("refused ") + error.what();
  }
}

}  // namespace

int main() {
  std::uint64_t size = 0;
  std::string file;
  while (std::cin.read(reinterpret_cast<char*>(&size), sizeof size)) {
    file.resize(size);
    if (!std::cin.read(file.data(), static_cast<std::streamsize>(size))) return 1;
    std::cout << verdict(file) << '\n';
  }
  return std::cout.flush() ? 0 : 1;
}
