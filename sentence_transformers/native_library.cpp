// The runtime of libtovana_sentence_transformers.so.

#include "sentence_transformers/model/native_runtime.h"

namespace tovana::sentence_transformers {

const Runtime& library_runtime() noexcept {
  static const NativeRuntime runtime(best_kernels(), bfloat16_kernels());
  return runtime;
}

}  // namespace tovana::sentence_transformers
