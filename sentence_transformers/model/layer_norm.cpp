#include "sentence_transformers/model/layer_norm.h"

#include <ATen/ops/layer_norm.h>

namespace tovana::sentence_transformers {

at::Tensor LayerNorm::operator()(const at::Tensor& rows) const {
  return at::layer_norm(rows, weight.sizes(), weight, bias, eps);
}

}  // namespace tovana::sentence_transformers
