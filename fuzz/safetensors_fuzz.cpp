// The reader of safetensors files, on any bytes: it accepts or throws ValueError, and what it
// accepts covers the data exactly once.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <utility>
#include <vector>

#include "sentence_transformers/weights/safetensors.h"
#include "tovana/exceptions/exceptions.h"

namespace st = tovana::sentence_transformers;

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

/// The bytes of a tensor, which lie inside the file.
std::span<const std::byte> bytes_of(const st::TensorEntry& tensor,
                                    std::span<const std::byte> file) {
  require(tensor.offset <= file.size() && tensor.size <= file.size() - tensor.offset);
  return file.subspan(tensor.offset, tensor.size);
}

/// Each tensor has the bytes that shape and dtype ask for, and together they are the file's end.
void check(const st::TensorMap& tensors, std::span<const std::byte> file) {
  std::size_t total = 0;
  unsigned sum = 0;
  for (const auto& [name, tensor] : tensors) {
    const auto count = static_cast<std::uint64_t>(tensor.element_count());
    require(tensor.size * 8 == count * st::bits_of(tensor.dtype));
    total += tensor.size;
    for (const std::byte byte : bytes_of(tensor, file)) sum += static_cast<unsigned>(byte);
  }
  require(total <= file.size());
  unsigned expected = 0;
  for (const std::byte byte : file.last(total)) expected += static_cast<unsigned>(byte);
  require(sum == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::byte> file = std::as_bytes(std::span(data, size));
  try {
    const st::TensorMap tensors = st::parse_safetensors(file, file.size());
    check(tensors, file);
    for (const auto& [name, tensor] : tensors) {
      std::vector<float> out(static_cast<std::size_t>(tensor.element_count()));
      st::copy_float32(tensor.dtype, bytes_of(tensor, file), out);
    }
  } catch (const tovana::ValueError&) {
    return 0;
  }
  return 0;
}
