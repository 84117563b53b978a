#pragma once

#include "sentence_transformers/model/runtime.h"

namespace tovana::sentence_transformers {

/// libtorch's operators and threads (`TorchEncoder`): the library that the models were trained with.
/// The modules behind the encoder run on kernels of our own.
class TorchRuntime final : public Runtime {
 public:
  std::string_view name() const noexcept override;
  std::string_view instruction_set() const noexcept override;
  /// Throws RuntimeError for a libtorch whose statics are destroyed at exit all the same.
  void open() const override;
  std::size_t get_num_threads() const override;
  void set_num_threads(std::size_t count) const override;
  void check_encoder(const Checkpoint& checkpoint, const TransformerConfig& config) const override;
  std::unique_ptr<const Encoder> load_encoder(const Checkpoint& checkpoint,
                                              const TransformerConfig& config,
                                              NumberFormat format) const override;
  const Kernels& kernels() const noexcept override { return best_kernels(); }
  std::optional<std::string> message_of(const std::exception& error) const override;
};

}  // namespace tovana::sentence_transformers
