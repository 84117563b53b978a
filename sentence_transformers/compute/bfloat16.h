#pragma once

#include <bit>
#include <cstdint>

namespace tovana::sentence_transformers {

inline constexpr float kLargestBfloat16 = 0x1.FEp127F;

/// The bfloat16 nearest to a number, the even one of two that are as near, as processors round it:
/// its bits. Beyond the largest there is infinity.
constexpr std::uint32_t bfloat16_bits(float number) {
  const auto bits = std::bit_cast<std::uint32_t>(number);
  if (number != number) return (bits >> 16U) | 0x40U;  // A NaN that rounding may not make infinite.
  return (bits + 0x7FFFU + ((bits >> 16U) & 1U)) >> 16U;
}

/// Two of them in a word, the first in its lower half.
constexpr std::uint32_t bfloat16_pair(float first, float second) {
  return bfloat16_bits(first) | bfloat16_bits(second) << 16U;
}

}  // namespace tovana::sentence_transformers
