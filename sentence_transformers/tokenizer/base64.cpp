#include "sentence_transformers/tokenizer/base64.h"

#include <cstddef>
#include <cstdint>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {

std::string decode_base64(std::string_view text) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto refuse = [] { throw ValueError("is not base64"); };
  const bool is_whole = text.size() % 4 == 0;
  std::size_t padding = 0;
  while (padding < 2 && text.ends_with('=')) {
    text.remove_suffix(1);
    ++padding;
  }
  if (!is_whole) refuse();
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3 + 3);
  std::uint32_t bits = 0;
  unsigned count = 0;
  for (const char digit : text) {
    const std::size_t value = kDigits.find(digit);
    if (value == std::string_view::npos) refuse();
    bits = bits << 6U | static_cast<std::uint32_t>(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      bytes += static_cast<char>(bits >> count & 0xFFU);
    }
  }
  if ((bits & ((1U << count) - 1)) != 0) refuse();
  return bytes;
}

}  // namespace tovana::sentence_transformers
