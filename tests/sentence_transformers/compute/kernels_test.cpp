// Every set of kernels that this processor runs, and bfloat16 emulated, against the same arithmetic
// in double precision.
// Sums and norms are seen in the vectors of the tiny models, whose sizes are made for it.

#include "sentence_transformers/compute/kernels.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sentence_transformers/compute/bfloat16.h"
#include "sentence_transformers/compute/packed_matrix.h"
#include "tests/sentence_transformers/all_kernels.h"

namespace tovana::sentence_transformers {
namespace {

using Numbers = std::vector<float>;

void expect_near(const Numbers& actual, const std::vector<double>& expected, double tolerance) {
  for (std::size_t i = 0; i < expected.size(); ++i) {
    ASSERT_NEAR(actual[i], expected[i], tolerance) << "number " << i;
  }
}

class KernelsTest : public testing::TestWithParam<const Kernels*> {
 protected:
  Numbers random_numbers(std::size_t count, float scale = 1) {
    std::normal_distribution<float> distribution(0, scale);
    Numbers numbers(count);
    for (float& number : numbers) number = distribution(_random);
    return numbers;
  }

  bool is_bfloat16() const { return _kernels.format == NumberFormat::bfloat16; }

  /// What a product makes of a factor.
  double factor(float number) const {
    return is_bfloat16() ? std::bit_cast<float>(bfloat16_bits(number) << 16U) : number;
  }

  const Kernels& _kernels = *GetParam();
  std::mt19937 _random{11};
};

TEST_P(KernelsTest, ProductsOfEveryHeight) {
  // Columns that end within a panel, and set in two goes, one of which begins within one.
  const std::size_t depth = 37;
  const std::size_t columns = 71;
  const Numbers weight = random_numbers(columns * depth);
  const Numbers bias = random_numbers(columns);
  PackedMatrix matrix(_kernels, depth, columns);
  matrix.set_columns(0, 21, weight.data(), depth, bias.data());
  matrix.set_columns(21, columns - 21, weight.data() + 21 * depth, depth, bias.data() + 21);
  const std::size_t stride = matrix.padded_columns();
  const std::size_t in_stride = depth + 3;
  for (std::size_t rows = 1; rows <= 31; ++rows) {
    const Numbers in = random_numbers(rows * in_stride);
    std::vector<double> product(rows * stride);
    std::vector<double> doubled_with_bias(rows * stride);
    for (std::size_t row = 0; row < rows; ++row) {
      for (std::size_t column = 0; column < columns; ++column) {
        double sum = 0;
        for (std::size_t k = 0; k < depth; ++k) {
          sum += factor(in[row * in_stride + k]) * factor(weight[column * depth + k]);
        }
        product[row * stride + column] = sum;
        doubled_with_bias[row * stride + column] = 2 * sum + bias[column];
      }
    }
    Numbers out(rows * stride, 99);
    Numbers scratch(matrix.scratch_size(rows));
    matrix.multiply_unbiased(rows, in.data(), in_stride, out.data(), false, scratch.data());
    expect_near(out, product, 2e-5);
    matrix.multiply(rows, in.data(), in_stride, out.data(), scratch.data());
    matrix.multiply_unbiased(rows, in.data(), in_stride, out.data(), true, scratch.data());
    expect_near(out, doubled_with_bias, 4e-5);
  }
}

TEST_P(KernelsTest, FactorsAtTheEdges) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  const float largest = is_bfloat16() ? 0x1.FEp127F : std::numeric_limits<float>::max();
  const auto product = [this](float in, float weight) {
    PackedMatrix matrix(_kernels, 1, 1);
    matrix.set_columns(0, 1, &weight, 1, nullptr);
    Numbers out(matrix.padded_columns());
    Numbers scratch(matrix.scratch_size(1));
    matrix.multiply(1, &in, 1, out.data(), scratch.data());
    return out.front();
  };
  // A weight stays finite; what is not finite passes through.
  EXPECT_EQ(product(0.5F, std::numeric_limits<float>::max()), largest / 2);
  EXPECT_EQ(product(-0.5F, std::numeric_limits<float>::lowest()), largest / 2);
  EXPECT_EQ(product(-kInfinity, 1), -kInfinity);
  EXPECT_TRUE(std::isnan(product(std::bit_cast<float>(0x7FFFFFFFU), 1)));
  if (!is_bfloat16()) return;
  // To nearest, and to even in the middle.
  EXPECT_EQ(product(0x1.00FFp0F, 1), 1);
  EXPECT_EQ(product(0x1.01p0F, 1), 1);
  EXPECT_EQ(product(1, 0x1.03p0F), 0x1.04p0F);
}

TEST_P(KernelsTest, ActivationsAreTheirDefinitions) {
  Numbers in;
  for (int i = -14000; i <= 14000; i += 3) in.push_back(static_cast<float>(i) / 1000);
  const auto check = [&](Activation activation, double (*exact)(double)) {
    Numbers out = in;
    _kernels.activate(activation, out.data(), out.size());
    for (std::size_t i = 0; i < in.size(); ++i) {
      const double expected = exact(in[i]);
      ASSERT_NEAR(out[i], expected, 1.5e-7 + 1.5e-7 * std::abs(expected)) << "of " << in[i];
    }
  };
  check(Activation::identity, [](double x) { return x; });
  check(Activation::gelu, [](double x) { return x * std::erfc(-x / std::sqrt(2.0)) / 2; });
  check(Activation::gelu_tanh, [](double x) {
    return x * (1 + std::tanh(std::sqrt(2 / std::acos(-1.0)) * (x + 0.044715 * x * x * x))) / 2;
  });
  check(Activation::relu, [](double x) { return std::max(x, 0.0); });
  check(Activation::sigmoid, [](double x) { return 1 / (1 + std::exp(-x)); });
  check(Activation::silu, [](double x) { return x / (1 + std::exp(-x)); });
  check(Activation::tanh, [](double x) { return std::tanh(x); });
}

TEST_P(KernelsTest, AQuerySeesTheKeysOfItsWindow) {
  struct Row {
    std::size_t length, width, before, behind;
  };
  for (const auto& [length, width, before, behind] :
       {Row{1, 5, 0, 0}, Row{150, 17, 0, 0}, Row{150, 33, 40, 3}, Row{150, 4, kAllTokens, 0},
        Row{70, 40, 5, kAllTokens}, Row{65, 16, 64, 64}, Row{33, 8, kAllTokens, kAllTokens}}) {
    const std::size_t stride = 3 * width + 1;
    const Numbers rows = random_numbers(length * stride);
    Numbers out(length * width);
    Numbers scratch(_kernels.attention_scratch(length, width));
    _kernels.attend({.length = length,
                     .width = width,
                     .query = rows.data(),
                     .key = rows.data() + width,
                     .value = rows.data() + 2 * width,
                     .stride = stride,
                     .before = before,
                     .behind = behind,
                     .scale = 0.3F,
                     .distance_bias = nullptr,
                     .out = out.data(),
                     .out_stride = width,
                     .scratch = scratch.data()});
    std::vector<double> expected(length * width);
    for (std::size_t query = 0; query < length; ++query) {
      std::vector<double> sums(width);
      double total = 0;
      for (std::size_t key = 0; key < length; ++key) {
        if (key < query ? query - key > before : key - query > behind) continue;
        double score = 0;
        for (std::size_t i = 0; i < width; ++i) {
          score += factor(rows[query * stride + i]) * factor(rows[key * stride + width + i]);
        }
        const double power = std::exp(double{0.3F} * score);
        total += power;
        for (std::size_t i = 0; i < width; ++i) {
          sums[i] += power * factor(rows[key * stride + 2 * width + i]);
        }
      }
      for (std::size_t i = 0; i < width; ++i) expected[query * width + i] = sums[i] / total;
    }
    SCOPED_TRACE(std::to_string(length) + ", window " + std::to_string(before));
    // In bfloat16, what each key counts is rounded.
    expect_near(out, expected, is_bfloat16() ? 3e-3 : 5e-6);
  }
}

TEST_P(KernelsTest, GatesAndRotationsOfEveryWidth) {
  constexpr std::size_t kRows = 3;
  for (std::size_t width = 1; width <= 40; ++width) {
    const std::size_t stride = 2 * width + 5;
    const Numbers in = random_numbers(kRows * stride);
    const Numbers angles = random_numbers(kRows * 2 * width);
    Numbers gated = in;
    _kernels.activate_gated(Activation::relu, kRows, width, gated.data(), stride);
    Numbers turned = in;
    _kernels.rotate({.rows = kRows,
                     .vectors = 1,
                     .width = 2 * width,
                     .angles = angles.data(),
                     .numbers = turned.data(),
                     .stride = stride});
    std::vector<double> products(in.begin(), in.end());
    std::vector<double> rotated(in.begin(), in.end());
    for (std::size_t row = 0; row < kRows; ++row) {
      for (std::size_t i = 0; i < width; ++i) {
        const std::size_t left = row * stride + i;
        const double x = in[left];
        const double y = in[left + width];
        const double cosine = angles[row * 2 * width + i];
        const double sine = angles[row * 2 * width + width + i];
        products[left] = std::max(x, 0.0) * y;
        rotated[left] = x * cosine - y * sine;
        rotated[left + width] = y * cosine + x * sine;
      }
    }
    expect_near(gated, products, 1e-6);
    expect_near(turned, rotated, 2e-6);
  }
}

INSTANTIATE_TEST_SUITE_P(All, KernelsTest, testing::ValuesIn(all_kernels()),
                         [](const auto& kernels) { return std::string(kernels.param->name); });

}  // namespace
}  // namespace tovana::sentence_transformers
