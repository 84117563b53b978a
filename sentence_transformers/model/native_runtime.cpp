#include "sentence_transformers/model/native_runtime.h"

#include "sentence_transformers/compute/thread_count.h"
#include "sentence_transformers/model/native_encoder.h"

namespace tovana::sentence_transformers {

std::size_t NativeRuntime::get_num_threads() const {
  return sentence_transformers::get_num_threads();
}

void NativeRuntime::set_num_threads(std::size_t count) const {
  sentence_transformers::set_num_threads(count);
}

std::unique_ptr<const Encoder> NativeRuntime::load_encoder(const Checkpoint& checkpoint,
                                                           const TransformerConfig& config,
                                                           NumberFormat /*format*/) const {
  return std::make_unique<const NativeEncoder>(checkpoint, config, _kernels);
}

}  // namespace tovana::sentence_transformers
