// Every set of kernels that this processor runs, against the same arithmetic in double precision.
// Sums and norms are seen in the vectors of the tiny models, whose sizes are made for it.

#include "sentence_transformers/compute/kernels.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sentence_transformers/compute/packed_matrix.h"

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
          sum += double{in[row * in_stride + k]} * double{weight[column * depth + k]};
        }
        product[row * stride + column] = sum;
        doubled_with_bias[row * stride + column] = 2 * sum + bias[column];
      }
    }
    Numbers out(rows * stride, 99);
    matrix.multiply_unbiased(rows, in.data(), in_stride, out.data(), false);
    expect_near(out, product, 2e-5);
    matrix.multiply(rows, in.data(), in_stride, out.data());
    matrix.multiply_unbiased(rows, in.data(), in_stride, out.data(), true);
    expect_near(out, doubled_with_bias, 4e-5);
  }
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
          score += double{rows[query * stride + i]} * double{rows[key * stride + width + i]};
        }
        const double power = std::exp(double{0.3F} * score);
        total += power;
        for (std::size_t i = 0; i < width; ++i) {
          sums[i] += power * double{rows[key * stride + 2 * width + i]};
        }
      }
      for (std::size_t i = 0; i < width; ++i) expected[query * width + i] = sums[i] / total;
    }
    SCOPED_TRACE(std::to_string(length) + ", window " + std::to_string(before));
    expect_near(out, expected, 5e-6);
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

INSTANTIATE_TEST_SUITE_P(All, KernelsTest,
                         testing::ValuesIn(supported_kernels().begin(), supported_kernels().end()),
                         [](const auto& kernels) { return std::string(kernels.param->name); });

}  // namespace
}  // namespace tovana::sentence_transformers
