#include "sentence_transformers/weights/tensor.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

namespace tovana::sentence_transformers {
namespace {

/// The bits of the single-precision number that a half-precision one is, as IEEE 754 defines it.
std::uint32_t widened(std::uint32_t half) {
  const std::uint32_t sign = (half & 0x8000U) << 16U;
  const auto fraction = static_cast<int>(half & 0x3FFU);
  const auto exponent = static_cast<int>(half >> 10U & 0x1FU);
  if (exponent == 31) return sign | 0x7F800000U | (half & 0x3FFU) << 13U;
  const double value =
      exponent == 0 ? std::ldexp(fraction, -24) : std::ldexp(1024 + fraction, exponent - 25);
  return sign | std::bit_cast<std::uint32_t>(static_cast<float>(value));
}

TEST(Float32, WideningIsExactForEveryBitPattern) {
  constexpr std::uint32_t kPatterns = 65536;
  // One byte in, so that no element is where a 16-bit number would like to be.
  std::vector<std::byte> bytes(2 * kPatterns + 1);
  for (std::uint32_t i = 0; i < kPatterns; ++i) {
    const auto pattern = static_cast<std::uint16_t>(i);
    std::memcpy(bytes.data() + 1 + 2 * std::size_t{i}, &pattern, 2);
  }
  for (const Dtype dtype : {Dtype::f16, Dtype::bf16}) {
    std::vector<float> out(kPatterns);
    copy_float32(dtype, std::span(bytes).subspan(1), out);
    for (std::uint32_t i = 0; i < kPatterns; ++i) {
      const std::uint32_t expected = dtype == Dtype::f16 ? widened(i) : i << 16U;
      ASSERT_EQ(std::bit_cast<std::uint32_t>(out[i]), expected) << dtype_name(dtype) << ' ' << i;
    }
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
