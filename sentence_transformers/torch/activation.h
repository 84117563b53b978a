#pragma once

#include <ATen/core/Tensor.h>

#include "sentence_transformers/compute/kernels.h"

namespace tovana::sentence_transformers {

/// The activation of each element.
at::Tensor activate(Activation activation, const at::Tensor& input);

}  // namespace tovana::sentence_transformers
