#pragma once

#include <cstddef>
#include <cstdint>

#include "sentence_transformers/compute/float_block.h"
#include "sentence_transformers/compute/kernels.h"

namespace tovana::sentence_transformers {

/// A weight matrix and its bias, arranged for one set of kernels and in their number format, in
/// memory of its own or in somebody else's. It is filled once and then only read. Move only.
class PackedMatrix {
 public:
  PackedMatrix() = default;

  /// The floats that a matrix takes.
  static std::size_t size(const Kernels& kernels, std::size_t depth, std::size_t columns);

  /// An empty one; every column has to be set. Throws std::bad_alloc.
  PackedMatrix(const Kernels& kernels, std::size_t depth, std::size_t columns);

  /// The same in `memory`, which is as large as `size` says and outlives it.
  PackedMatrix(const Kernels& kernels, std::size_t depth, std::size_t columns, float* memory);

  /// Sets `count` columns from `first` on: from rows of `depth` floats, which are `stride` apart,
  /// and as many numbers of bias, or none. So a matrix can be set a few of W's rows at a time, and
  /// from a part of each row. Fastest when `first` is a multiple of 8.
  /// The rows are finite; what would round to infinity becomes the largest number there is.
  void set_columns(std::size_t first, std::size_t count, const float* rows, std::size_t stride,
                   const float* bias);

  /// The columns that a product writes.
  std::size_t padded_columns() const noexcept { return _kernels->padded(_columns); }

  /// The floats of scratch that a product of so many rows takes.
  std::size_t scratch_size(std::size_t rows) const noexcept {
    return _kernels->product_scratch(rows, _depth);
  }

  /// out = in W^T + b, of `[rows x depth]` to `[rows x padded_columns()]`.
  void multiply(std::size_t rows, const float* in, std::size_t in_stride, float* out,
                float* scratch) const;

  /// out = in W^T, or out += in W^T if it `adds`; without the bias.
  void multiply_unbiased(std::size_t rows, const float* in, std::size_t in_stride, float* out,
                         bool adds, float* scratch) const;

 private:
  template <std::size_t kCount>
  void _set_columns(const float* rows, std::size_t stride, std::size_t column);
  void _multiply(std::size_t rows, const float* in, std::size_t in_stride, const float* bias,
                 float* out, bool adds, float* scratch) const;

  FloatBlock _memory;  ///< Nothing if it is somebody else's.
  const Kernels* _kernels = nullptr;
  std::size_t _depth = 0;
  std::size_t _columns = 0;
  std::uint32_t* _panels = nullptr;  ///< Words.
  float* _bias = nullptr;
};

}  // namespace tovana::sentence_transformers
