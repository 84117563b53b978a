#pragma once

#include <cstdint>

#include <ATen/core/Tensor.h>

#include "sentence_transformers/model/activation.h"

namespace tovana::sentence_transformers {

/// How a product with a weight matrix is computed. `packed` rearranges the weights once, for the
/// processor at hand, and runs oneDNN on them; `plain` is at::linear on the weights as they are.
enum class LinearKernel { packed, plain };

/// `packed` where this libtorch and this processor offer it. The answer is the same for the life of
/// the process.
LinearKernel best_linear_kernel();

/// activation(x W^T + b), of rows of floats. Immutable; any number of threads may use one.
class Linear {
 public:
  /// `weight` is `[out x in]`, `bias` `[out]`. The packed kernel keeps a copy of both of its own;
  /// the plain one keeps the tensors it is given.
  Linear(const at::Tensor& weight, const at::Tensor& bias, Activation activation,
         LinearKernel kernel);

  /// `[rows x in]` to `[rows x out]`.
  at::Tensor operator()(const at::Tensor& rows) const;

 private:
  at::Tensor _weight;  ///< Opaque when packed.
  at::Tensor _bias;
  Activation _activation;
  LinearKernel _kernel;
};

}  // namespace tovana::sentence_transformers
