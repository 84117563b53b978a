#include "sentence_transformers/weights/tensor.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/failure_text.h"

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

TEST(Float32, OfF64IsTheNearest) {
  const std::vector<double> values = {0.1, -2.0};
  std::vector<float> out(2);
  copy_float32(Dtype::f64, std::as_bytes(std::span(values)), out);
  EXPECT_EQ(out, (std::vector<float>{0.1F, -2.0F}));
}

TEST(Float32, LiesInPlaceOnlyWhenAligned) {
  alignas(float) std::array<std::byte, 9> bytes{};
  const std::vector<float> values = {1.5F, -2.0F};
  std::vector<float> copy(2);
  for (const std::size_t offset : {std::size_t{1}, std::size_t{0}}) {
    std::memcpy(bytes.data() + offset, values.data(), 8);
    const std::span<const std::byte> part = std::span(bytes).subspan(offset, 8);
    EXPECT_EQ(float32_in_place(Dtype::f32, part).has_value(), offset == 0);
    copy_float32(Dtype::f32, part, copy);
    EXPECT_EQ(copy, values);
  }
  const std::span<const std::byte> aligned = std::span(bytes).first(8);
  const std::span<const float> in_place = *float32_in_place(Dtype::f32, aligned);
  EXPECT_EQ(std::vector(in_place.begin(), in_place.end()), values);
  EXPECT_EQ(float32_in_place(Dtype::i32, aligned), std::nullopt);
  EXPECT_EQ(failure_of([&] { copy_float32(Dtype::i32, aligned, copy); }),
            "ValueError: weights of type I32 cannot be used: F64, F32, F16 and BF16 can");
}

}  // namespace
}  // namespace tovana::sentence_transformers
