#pragma once

#include <ATen/core/Tensor.h>

namespace tovana::sentence_transformers {

/// Each row shifted and scaled to mean 0 and variance 1, then by weights of its own.
struct LayerNorm {
  at::Tensor weight;  ///< `[width]`
  at::Tensor bias;    ///< `[width]`
  double eps;

  /// `[rows x width]` to the same.
  at::Tensor operator()(const at::Tensor& rows) const;
};

}  // namespace tovana::sentence_transformers
