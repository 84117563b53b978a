#pragma once

#include <cstddef>

#include "sentence_transformers/compute/kernels.h"
#include "sentence_transformers/compute/matrix.h"

namespace tovana::sentence_transformers {

/// Each row shifted and scaled to mean 0 and variance 1, then by weights of its own.
struct LayerNorm {
  Matrix weight;  ///< `[1 x width]`
  Matrix bias;    ///< `[1 x width]`
  double eps;

  /// Of rows whose beginnings are strides apart; `out` may be `in`.
  void operator()(const Kernels& kernels, std::size_t rows, const float* in, std::size_t in_stride,
                  float* out, std::size_t out_stride) const {
    kernels.normalize({.rows = rows,
                       .width = weight.columns(),
                       .in = in,
                       .in_stride = in_stride,
                       .weight = weight.data(),
                       .bias = bias.data(),
                       .eps = static_cast<float>(eps),
                       .out = out,
                       .out_stride = out_stride});
  }
};

}  // namespace tovana::sentence_transformers
