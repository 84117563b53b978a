#include "sentence_transformers/torch/activation.h"

#include <ATen/ops/gelu.h>
#include <ATen/ops/relu.h>
#include <ATen/ops/sigmoid.h>
#include <ATen/ops/silu.h>
#include <ATen/ops/tanh.h>

namespace tovana::sentence_transformers {

at::Tensor activate(Activation activation, const at::Tensor& input) {
  switch (activation) {
    case Activation::identity:
      break;
    case Activation::gelu:
      return at::gelu(input, "none");  // The exact form, with erf.
    case Activation::gelu_tanh:
      return at::gelu(input, "tanh");
    case Activation::relu:
      return at::relu(input);
    case Activation::silu:
      return at::silu(input);
    case Activation::sigmoid:
      return at::sigmoid(input);
    case Activation::tanh:
      return at::tanh(input);
  }
  return input;
}

}  // namespace tovana::sentence_transformers
