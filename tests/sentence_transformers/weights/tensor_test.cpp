#include "sentence_transformers/weights/tensor.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

/// A number with `exponent_bits` and `fraction_bits`, as IEEE 754 defines it.
double defined_value(std::uint32_t pattern, int exponent_bits, int fraction_bits) {
  const auto fraction = static_cast<int>(pattern & ((1U << fraction_bits) - 1));
  const auto exponent = static_cast<int>(pattern >> fraction_bits & ((1U << exponent_bits) - 1));
  const int bias = (1 << (exponent_bits - 1)) - 1;
  const double sign = pattern >> (exponent_bits + fraction_bits) != 0 ? -1.0 : 1.0;
  if (exponent == (1 << exponent_bits) - 1) {
    return fraction != 0 ? std::numeric_limits<double>::quiet_NaN()
                         : sign * std::numeric_limits<double>::infinity();
  }
  if (exponent == 0) return sign * std::ldexp(fraction, 1 - bias - fraction_bits);
  return sign * std::ldexp((1 << fraction_bits) + fraction, exponent - bias - fraction_bits);
}

class WideningTest : public testing::TestWithParam<Dtype> {};

TEST_P(WideningTest, IsExactForEveryBitPattern) {
  constexpr std::uint32_t kPatterns = 65536;
  const bool is_half = GetParam() == Dtype::f16;
  const int exponent_bits = is_half ? 5 : 8;
  const int fraction_bits = is_half ? 10 : 7;
  // One byte in, so that no element is where a 16-bit number would like to be.
  std::vector<std::byte> bytes(2 * kPatterns + 1);
  for (std::uint32_t i = 0; i < kPatterns; ++i) {
    const auto pattern = static_cast<std::uint16_t>(i);
    std::memcpy(bytes.data() + 1 + 2 * std::size_t{i}, &pattern, 2);
  }
  std::vector<float> out(kPatterns);
  copy_float32({GetParam(), {256, 256}, std::span(bytes).subspan(1)}, out);

  for (std::uint32_t i = 0; i < kPatterns; ++i) {
    const double expected = defined_value(i, exponent_bits, fraction_bits);
    const auto bits = std::bit_cast<std::uint32_t>(out[i]);
    if (std::isnan(expected)) {
      const std::uint32_t fraction = i & ((1U << fraction_bits) - 1);
      ASSERT_EQ(bits, (i & 0x8000U) << 16U | 0x7F800000U | fraction << (23 - fraction_bits)) << i;
    } else {
      ASSERT_EQ(bits, std::bit_cast<std::uint32_t>(static_cast<float>(expected))) << i;
      ASSERT_EQ(static_cast<double>(out[i]), expected) << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Dtypes, WideningTest, testing::Values(Dtype::f16, Dtype::bf16),
                         [](const auto& instance) {
                           return std::string(dtype_name(instance.param));
                         });

TEST(Float32, LiesInPlaceOnlyWhenAligned) {
  alignas(float) std::array<std::byte, 9> bytes{};
  const std::vector<float> values = {1.5F, -2.0F};
  for (const std::size_t offset : {std::size_t{0}, std::size_t{1}}) {
    std::memcpy(bytes.data() + offset, values.data(), 8);
    const TensorView tensor{Dtype::f32, {2}, std::span(bytes).subspan(offset, 8)};
    const auto in_place = float32_in_place(tensor);
    ASSERT_EQ(in_place.has_value(), offset == 0);
    if (in_place) {
      EXPECT_EQ(std::vector(in_place->begin(), in_place->end()), values);
    }
    std::vector<float> copy(2);
    copy_float32(tensor, copy);
    EXPECT_EQ(copy, values);
  }
  std::vector<float> out(2);
  EXPECT_EQ(float32_in_place({Dtype::i32, {2}, std::span(bytes).first(8)}), std::nullopt);
  EXPECT_THROW(copy_float32({Dtype::i32, {2}, std::span(bytes).first(8)}, out), ValueError);
}

}  // namespace
}  // namespace tovana::sentence_transformers
