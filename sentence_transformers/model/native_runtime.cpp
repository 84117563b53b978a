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

bool NativeRuntime::supports(NumberFormat format) const noexcept {
  return format == NumberFormat::float32 || _bfloat16 != nullptr;
}

std::unique_ptr<const Encoder> NativeRuntime::load_encoder(const Checkpoint& checkpoint,
                                                           const TransformerConfig& config,
                                                           NumberFormat format) const {
  const Kernels& kernels = format == NumberFormat::bfloat16 ? *_bfloat16 : _kernels;
  return std::make_unique<const NativeEncoder>(checkpoint, config, kernels);
}

}  // namespace tovana::sentence_transformers
