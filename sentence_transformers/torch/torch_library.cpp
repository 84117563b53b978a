// The runtime of libtovana_sentence_transformers_torch_runtime.so.

#include "sentence_transformers/torch/torch_runtime.h"

namespace tovana::sentence_transformers {

const Runtime& library_runtime() noexcept {
  static constexpr TorchRuntime runtime;
  return runtime;
}

}  // namespace tovana::sentence_transformers
