#pragma once

#include <vector>

#include "sentence_transformers/compute/kernels.h"

namespace tovana::sentence_transformers {

/// Those that this processor runs, and those that any does.
inline std::vector<const Kernels*> all_kernels() {
  std::vector<const Kernels*> all(supported_kernels().begin(), supported_kernels().end());
  if (bfloat16_kernels() != nullptr) all.push_back(bfloat16_kernels());
  all.push_back(&kEmulatedBf16Kernels);
  return all;
}

}  // namespace tovana::sentence_transformers
