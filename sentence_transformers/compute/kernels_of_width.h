#pragma once

// The kernels, for vectors of TOVANA_VECTOR_BYTES: included by one file for each instruction set,
// which is compiled for it. Nothing here may be shared with other files, or the linker could choose
// this set's code for a processor that lacks it: all is internal, and no function of the standard
// library's templates is called.

#include <cstddef>
#include <cstdint>
#include <utility>

#include "sentence_transformers/compute/kernels.h"

namespace tovana::sentence_transformers {
namespace {

typedef float Vector __attribute__((vector_size(TOVANA_VECTOR_BYTES)));
typedef std::int32_t Integers __attribute__((vector_size(TOVANA_VECTOR_BYTES)));
/// A vector anywhere among floats.
typedef float Stored __attribute__((vector_size(TOVANA_VECTOR_BYTES), aligned(4), may_alias));

constexpr std::size_t kLanes = TOVANA_VECTOR_BYTES / sizeof(float);
constexpr std::size_t kPanel = 2 * kLanes;
constexpr std::size_t kTileRows = TOVANA_TILE_ROWS;

inline Vector load(const float* from) { return *reinterpret_cast<const Stored*>(from); }
inline void store(float* to, Vector vector) { *reinterpret_cast<Stored*>(to) = vector; }
inline Vector splat(float number) { return Vector{} + number; }
// In this order a NaN on the right wins.
inline Vector larger(Vector left, Vector right) { return left > right ? left : right; }

/// Halves are added, then their halves, and so on.
inline float sum_of(Vector vector) {
  float lanes[kLanes];
  store(lanes, vector);
  for (std::size_t half = kLanes / 2; half > 0; half /= 2) {
    for (std::size_t i = 0; i < half; ++i) lanes[i] += lanes[i + half];
  }
  return lanes[0];
}

inline float largest_of(Vector vector) {
  float largest = vector[0];
  for (std::size_t i = 1; i < kLanes; ++i) largest = vector[i] > largest ? vector[i] : largest;
  return largest;
}

/// e^x of numbers that are not positive, within an ulp; below -87 as for -87. The polynomial is
/// that of Cephes' expf.
inline Vector exp_of_negative(Vector x) {
  x = larger(splat(-87.0F), x);
  // Adding 1.5 * 2^23 rounds to a whole number, which then stands in the lowest bits.
  const Vector shifted = x * 1.44269504F + 12582912.0F;
  const Vector whole = shifted - 12582912.0F;
  const Vector rest = x - whole * 0.693359375F + whole * 2.12194440e-4F;
  Vector sum = splat(1.9875691500e-4F);
  sum = sum * rest + 1.3981999507e-3F;
  sum = sum * rest + 8.3334519073e-3F;
  sum = sum * rest + 4.1665795894e-2F;
  sum = sum * rest + 1.6666665459e-1F;
  sum = sum * rest + 5.0000001201e-1F;
  sum = sum * (rest * rest) + rest + 1.0F;
  return __builtin_bit_cast(
      Vector, __builtin_bit_cast(Integers, sum) + (__builtin_bit_cast(Integers, shifted) << 23));
}

/// x Phi(x), where Phi(-t) is e^(-t^2 / 2) times a function that is smooth in 1 / (1 + t / 4); the
/// polynomial for that is a fit of our own, within 2e-9 of it in the product.
inline Vector gelu(Vector x) {
  const Vector size = larger(x, -x);
  const Vector u = 1.0F / (size * 0.25F + 1.0F);
  Vector sum = splat(-0.0923045501F);
  sum = sum * u + 0.343889832F;
  sum = sum * u - 0.269176871F;
  sum = sum * u + 0.280804545F;
  sum = sum * u + 0.0266921036F;
  sum = sum * u + 0.11105407F;
  sum = sum * u + 0.0990408435F;
  const Vector tail = x * (exp_of_negative(size * size * -0.5F) * (sum * u));
  return x < 0.0F ? tail : x - tail;
}

inline Vector sigmoid(Vector x) {
  const Vector power = exp_of_negative(-larger(x, -x));
  return (x < 0.0F ? power : splat(1.0F)) / (power + 1.0F);
}

inline Vector gelu_tanh(Vector x) {
  return x * sigmoid((x * x * x * 0.044715F + x) * 1.5957691216F);
}

inline Vector silu(Vector x) { return x * sigmoid(x); }

inline Vector tanh(Vector x) {
  const Vector power = exp_of_negative(larger(x, -x) * -2.0F);
  const Vector result = (1.0F - power) / (1.0F + power);
  return x < 0.0F ? -result : result;
}

inline Vector relu(Vector x) { return larger(Vector{}, x); }

/// How far ahead of the sums a panel is fetched, in floats.
constexpr std::size_t kAhead = 64 * kPanel;

/// `kRows` rows of a product with one panel, all sums in registers.
template <std::size_t kRows>
void multiply_tile(const float* in, std::size_t in_stride, const float* panel, std::size_t depth,
                   const float* bias, float* out, std::size_t out_stride, bool adds) {
  Vector sums[kRows][2] = {};
  for (std::size_t k = 0; k < depth; ++k, panel += kPanel) {
    const Vector left = load(panel);
    const Vector right = load(panel + kLanes);
    __builtin_prefetch(panel + kAhead);
    if (kPanel * sizeof(float) > 64) __builtin_prefetch(panel + kAhead + kLanes);
#pragma GCC unroll 16
    for (std::size_t row = 0; row < kRows; ++row) {
      const float factor = in[row * in_stride + k];
      sums[row][0] += left * factor;
      sums[row][1] += right * factor;
    }
  }
  if (bias != nullptr) {
    const Vector left = load(bias);
    const Vector right = load(bias + kLanes);
#pragma GCC unroll 16
    for (std::size_t row = 0; row < kRows; ++row) {
      sums[row][0] += left;
      sums[row][1] += right;
    }
  }
#pragma GCC unroll 16
  for (std::size_t row = 0; row < kRows; ++row) {
    float* const to = out + row * out_stride;
    store(to, adds ? load(to) + sums[row][0] : sums[row][0]);
    store(to + kLanes, adds ? load(to + kLanes) + sums[row][1] : sums[row][1]);
  }
}

using Tile = decltype(&multiply_tile<1>);

template <std::size_t... kIndices>
Tile tile_of(std::size_t rows, std::index_sequence<kIndices...>) {
  static constexpr Tile kTiles[] = {multiply_tile<kIndices + 1>...};
  return kTiles[rows - 1];
}

/// Calls body(first, count) for rows in tiles of about the same height.
template <typename Body>
inline void for_tiles(std::size_t rows, const Body& body) {
  const std::size_t tiles = (rows + kTileRows - 1) / kTileRows;
  for (std::size_t tile = 0, first = 0; tile < tiles; ++tile) {
    const std::size_t count = rows / tiles + (tile < rows % tiles ? 1 : 0);
    body(first, count);
    first += count;
  }
}

void multiply(const Product& product) {
  for (std::size_t column = 0; column < product.columns; column += kPanel) {
    const float* const panel = product.panels + column * product.depth;
    const float* const bias = product.bias == nullptr ? nullptr : product.bias + column;
    for_tiles(product.rows, [&](std::size_t first, std::size_t count) {
      tile_of(count, std::make_index_sequence<kTileRows>{})(
          product.in + first * product.in_stride, product.in_stride, panel, product.depth, bias,
          product.out + first * product.out_stride + column, product.out_stride, product.adds);
    });
  }
}

constexpr std::size_t padded(std::size_t columns) {
  return (columns + kPanel - 1) / kPanel * kPanel;
}

/// Room for the keys and the values in panels, and for a tile's scores and results.
std::size_t attention_scratch(std::size_t length, std::size_t width) {
  return width * padded(length) + length * padded(width) +
         kTileRows * (padded(length) + padded(width));
}

void pack_transposed(const float* rows, std::size_t stride, std::size_t length, std::size_t width,
                     float* panels) {
  for (std::size_t first = 0; first < length; first += kPanel, panels += width * kPanel) {
    for (std::size_t row = 0; row < kPanel; ++row) {
      const bool is_there = first + row < length;
      const float* const from = rows + (is_there ? first + row : first) * stride;
      for (std::size_t i = 0; i < width; ++i) panels[i * kPanel + row] = is_there ? from[i] : 0.0F;
    }
  }
}

void pack(const float* rows, std::size_t stride, std::size_t length, std::size_t width,
          float* panels) {
  for (std::size_t first = 0; first < width; first += kPanel, panels += length * kPanel) {
    const std::size_t count = width - first < kPanel ? width - first : kPanel;
    for (std::size_t row = 0; row < length; ++row) {
      const float* const from = rows + row * stride + first;
      float* const to = panels + row * kPanel;
      for (std::size_t i = 0; i < kPanel; ++i) to[i] = i < count ? from[i] : 0.0F;
    }
  }
}

/// e^(scale x + bias - the largest of that) of one row of scores, in place; returns their sum. What
/// stands between `length` and the next multiple of kPanel becomes next to nothing.
float exponentials(float* scores, std::size_t length, float scale, const float* bias) {
  const std::size_t end = padded(length);
  for (std::size_t i = length; i < end; ++i) scores[i] = -__builtin_inff();
  Vector largest = splat(-__builtin_inff());
  for (std::size_t i = 0; i < end; i += kLanes) {
    Vector score = load(scores + i) * scale;
    if (bias != nullptr) score += load(bias + i);
    store(scores + i, score);
    largest = larger(largest, score);
  }
  const float top = largest_of(largest);
  Vector sum = {};
  for (std::size_t i = 0; i < end; i += kLanes) {
    const Vector power = exp_of_negative(load(scores + i) - top);
    store(scores + i, power);
    sum += power;
  }
  return sum_of(sum);
}

void attend(const Attention& task) {
  const std::size_t length = padded(task.length);
  const std::size_t width = padded(task.width);
  float* const keys = task.scratch;
  float* const values = keys + task.width * length;
  float* const scores = values + task.length * width;
  float* const results = scores + kTileRows * length;
  pack_transposed(task.key, task.stride, task.length, task.width, keys);
  pack(task.value, task.stride, task.length, task.width, values);
  for_tiles(task.length, [&](std::size_t first, std::size_t count) {
    multiply({.rows = count,
              .in = task.query + first * task.stride,
              .in_stride = task.stride,
              .panels = keys,
              .depth = task.width,
              .columns = length,
              .bias = nullptr,
              .out = scores,
              .out_stride = length,
              .adds = false});
    float factors[kTileRows];
    for (std::size_t row = 0; row < count; ++row) {
      const float* const bias =
          task.distance_bias == nullptr ? nullptr : task.distance_bias - (first + row);
      factors[row] = 1.0F / exponentials(scores + row * length, task.length, task.scale, bias);
    }
    multiply({.rows = count,
              .in = scores,
              .in_stride = length,
              .panels = values,
              .depth = task.length,
              .columns = width,
              .bias = nullptr,
              .out = results,
              .out_stride = width,
              .adds = false});
    for (std::size_t row = 0; row < count; ++row) {
      const float* const from = results + row * width;
      float* const to = task.out + (first + row) * task.out_stride;
      for (std::size_t i = 0; i < task.width; ++i) to[i] = from[i] * factors[row];
    }
  });
}

void normalize_row(const Normalization& task, const float* in, float* out) {
  const std::size_t whole = task.width / kLanes * kLanes;
  const auto count = static_cast<float>(task.width);

  Vector sums = {};
  for (std::size_t i = 0; i < whole; i += kLanes) sums += load(in + i);
  float sum = sum_of(sums);
  for (std::size_t i = whole; i < task.width; ++i) sum += in[i];
  const float mean = sum / count;

  Vector squares = {};
  for (std::size_t i = 0; i < whole; i += kLanes) {
    const Vector distance = load(in + i) - mean;
    squares += distance * distance;
  }
  float square = sum_of(squares);
  for (std::size_t i = whole; i < task.width; ++i) square += (in[i] - mean) * (in[i] - mean);
  const float scale = 1.0F / __builtin_sqrtf(square / count + task.eps);

  for (std::size_t i = 0; i < whole; i += kLanes) {
    store(out + i, (load(in + i) - mean) * scale * load(task.weight + i) + load(task.bias + i));
  }
  for (std::size_t i = whole; i < task.width; ++i) {
    out[i] = (in[i] - mean) * scale * task.weight[i] + task.bias[i];
  }
}

void normalize(const Normalization& task) {
  for (std::size_t row = 0; row < task.rows; ++row) {
    normalize_row(task, task.in + row * task.in_stride, task.out + row * task.out_stride);
  }
}

void add(const Sum& sum) {
  for (std::size_t row = 0; row < sum.rows; ++row) {
    const float* const left = sum.left + row * sum.left_stride;
    const float* const right = sum.right + row * sum.right_stride;
    float* const out = sum.out + row * sum.out_stride;
    for (std::size_t i = 0; i < sum.width; ++i) out[i] = left[i] + right[i];
  }
}

template <Vector (*kFunction)(Vector)>
void apply(float* numbers, std::size_t count) {
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) store(numbers + i, kFunction(load(numbers + i)));
  if (i == count) return;
  float rest[kLanes] = {};
  for (std::size_t lane = 0; i + lane < count; ++lane) rest[lane] = numbers[i + lane];
  store(rest, kFunction(load(rest)));
  for (std::size_t lane = 0; i + lane < count; ++lane) numbers[i + lane] = rest[lane];
}

void activate(Activation activation, float* numbers, std::size_t count) {
  switch (activation) {
    case Activation::identity:
      return;
    case Activation::gelu:
      return apply<gelu>(numbers, count);
    case Activation::gelu_tanh:
      return apply<gelu_tanh>(numbers, count);
    case Activation::relu:
      return apply<relu>(numbers, count);
    case Activation::silu:
      return apply<silu>(numbers, count);
    case Activation::tanh:
      return apply<tanh>(numbers, count);
  }
}

constexpr Kernels kernels_of_width(const char* name) {
  return {.name = name,
          .panel = kPanel,
          .multiply = multiply,
          .attend = attend,
          .normalize = normalize,
          .add = add,
          .activate = activate,
          .attention_scratch = attention_scratch};
}

}  // namespace
}  // namespace tovana::sentence_transformers
