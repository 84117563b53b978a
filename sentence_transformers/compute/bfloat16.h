#pragma once

#include <bit>
#include <cstdint>

namespace tovana::sentence_transformers {

/// The bits of the bfloat16 nearest to a number, the even one of two that are as near. Beyond the
/// largest there is infinity; NaN is not for this.
constexpr std::uint32_t bfloat16_bits(float number) {
  const auto bits = std::bit_cast<std::uint32_t>(number);
  return (bits + 0x7FFFU + ((bits >> 16U) & 1U)) >> 16U;
}

/// The same, but for finite numbers the largest instead of infinity.
constexpr std::uint32_t finite_bfloat16_bits(float number) {
  const std::uint32_t rounded = bfloat16_bits(number);
  return rounded - static_cast<std::uint32_t>((rounded & 0x7FFFU) == 0x7F80U);
}

}  // namespace tovana::sentence_transformers
