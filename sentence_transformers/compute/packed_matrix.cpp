#include "sentence_transformers/compute/packed_matrix.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "sentence_transformers/compute/bfloat16.h"

namespace tovana::sentence_transformers {
namespace {

/// Columns that are set side by side: what is written to a panel is then written in one go.
constexpr std::size_t kSideBySide = 8;

std::uint32_t finite_pair(float first, float second) {
  return finite_bfloat16_bits(first) | finite_bfloat16_bits(second) << 16U;
}

}  // namespace

std::size_t PackedMatrix::size(const Kernels& kernels, std::size_t depth, std::size_t columns) {
  const std::size_t padded = kernels.padded(columns);
  return FloatSlices::size(padded * kernels.words(depth)) + FloatSlices::size(padded);
}

PackedMatrix::PackedMatrix(const Kernels& kernels, std::size_t depth, std::size_t columns) {
  FloatBlock memory(size(kernels, depth, columns));
  *this = PackedMatrix(kernels, depth, columns, memory.data());
  _memory = std::move(memory);
}

PackedMatrix::PackedMatrix(const Kernels& kernels, std::size_t depth, std::size_t columns,
                           float* memory)
    : _kernels(&kernels), _depth(depth), _columns(columns) {
  FloatSlices slices(memory);
  const std::size_t padded = kernels.padded(columns);
  const std::size_t words = kernels.words(depth);
  _panels = reinterpret_cast<std::uint32_t*>(slices.take(padded * words));
  _bias = slices.take(padded);
  std::fill(_bias, _bias + padded, 0.0F);
  if (columns == padded) return;
  std::fill(_panels + (padded - kernels.panel) * words, _panels + padded * words, 0U);
}

template <std::size_t kCount>
void PackedMatrix::_set_columns(const float* rows, std::size_t stride, std::size_t column) {
  const std::size_t panel = _kernels->panel;
  std::uint32_t* to = _panels + column / panel * panel * _kernels->words(_depth) + column % panel;
  const auto write = [&](const auto& word) {
    std::uint32_t words[kCount];
    for (std::size_t row = 0; row < kCount; ++row) words[row] = word(rows + row * stride);
    std::copy_n(words, kCount, to);
    to += panel;
  };
  if (_kernels->format == NumberFormat::float32) {
    for (std::size_t i = 0; i < _depth; ++i) {
      write([i](const float* row) { return std::bit_cast<std::uint32_t>(row[i]); });
    }
    return;
  }
  for (std::size_t i = 0; i + 1 < _depth; i += 2) {
    write([i](const float* row) { return finite_pair(row[i], row[i + 1]); });
  }
  if (_depth % 2 == 1) {
    write([this](const float* row) { return finite_pair(row[_depth - 1], 0.0F); });
  }
}

void PackedMatrix::set_columns(std::size_t first, std::size_t count, const float* rows,
                               std::size_t stride, const float* bias) {
  const std::size_t end = first + count;
  for (std::size_t column = first, set = 0; column < end; column += set, rows += set * stride) {
    if (column % kSideBySide == 0 && end - column >= kSideBySide) {
      set = kSideBySide;
      _set_columns<kSideBySide>(rows, stride, column);
    } else {
      set = 1;
      _set_columns<1>(rows, stride, column);
    }
  }
  if (bias != nullptr) std::copy_n(bias, count, _bias + first);
}

void PackedMatrix::multiply(std::size_t rows, const float* in, std::size_t in_stride, float* out,
                            float* scratch) const {
  _multiply(rows, in, in_stride, _bias, out, false, scratch);
}

void PackedMatrix::multiply_unbiased(std::size_t rows, const float* in, std::size_t in_stride,
                                     float* out, bool adds, float* scratch) const {
  _multiply(rows, in, in_stride, nullptr, out, adds, scratch);
}

void PackedMatrix::_multiply(std::size_t rows, const float* in, std::size_t in_stride,
                             const float* bias, float* out, bool adds, float* scratch) const {
  _kernels->multiply({.rows = rows,
                      .in = in,
                      .in_stride = in_stride,
                      .panels = _panels,
                      .depth = _depth,
                      .columns = padded_columns(),
                      .bias = bias,
                      .out = out,
                      .out_stride = padded_columns(),
                      .adds = adds,
                      .scratch = scratch});
}

}  // namespace tovana::sentence_transformers
