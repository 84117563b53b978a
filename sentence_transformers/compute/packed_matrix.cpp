#include "sentence_transformers/compute/packed_matrix.h"

#include <algorithm>
#include <utility>

namespace tovana::sentence_transformers {
namespace {

/// Columns that are set side by side: what is written to a panel is then written in one go.
constexpr std::size_t kSideBySide = 8;

/// Makes `kCount` rows columns of a panel.
template <std::size_t kCount>
void transpose(const float* rows, std::size_t stride, std::size_t depth, float* to,
               std::size_t panel) {
  for (std::size_t i = 0; i < depth; ++i) {
    float numbers[kCount];
    for (std::size_t row = 0; row < kCount; ++row) numbers[row] = rows[row * stride + i];
    std::copy_n(numbers, kCount, to + i * panel);
  }
}

}  // namespace

std::size_t PackedMatrix::size(const Kernels& kernels, std::size_t depth, std::size_t columns) {
  const std::size_t padded = kernels.padded(columns);
  return FloatSlices::size(padded * depth) + FloatSlices::size(padded);
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
  _panels = slices.take(padded * depth);
  _bias = slices.take(padded);
  std::fill(_bias, _bias + padded, 0.0F);
  if (columns == padded) return;
  const std::size_t last_panel = (padded - kernels.panel) * depth;
  std::fill(_panels + last_panel, _panels + padded * depth, 0.0F);
}

void PackedMatrix::set_columns(std::size_t first, std::size_t count, const float* rows,
                               std::size_t stride, const float* bias) {
  const std::size_t panel = _kernels->panel;
  const std::size_t end = first + count;
  for (std::size_t column = first, set = 0; column < end; column += set, rows += set * stride) {
    float* const to = _panels + column / panel * panel * _depth + column % panel;
    if (column % kSideBySide == 0 && end - column >= kSideBySide) {
      set = kSideBySide;
      transpose<kSideBySide>(rows, stride, _depth, to, panel);
    } else {
      set = 1;
      transpose<1>(rows, stride, _depth, to, panel);
    }
  }
  if (bias != nullptr) std::copy_n(bias, count, _bias + first);
}

void PackedMatrix::multiply(std::size_t rows, const float* in, std::size_t in_stride,
                            float* out) const {
  _multiply(rows, in, in_stride, _bias, out, false);
}

void PackedMatrix::multiply_unbiased(std::size_t rows, const float* in, std::size_t in_stride,
                                     float* out, bool adds) const {
  _multiply(rows, in, in_stride, nullptr, out, adds);
}

void PackedMatrix::_multiply(std::size_t rows, const float* in, std::size_t in_stride,
                             const float* bias, float* out, bool adds) const {
  _kernels->multiply({.rows = rows,
                      .in = in,
                      .in_stride = in_stride,
                      .panels = _panels,
                      .depth = _depth,
                      .columns = padded_columns(),
                      .bias = bias,
                      .out = out,
                      .out_stride = padded_columns(),
                      .adds = adds});
}

}  // namespace tovana::sentence_transformers
