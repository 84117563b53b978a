#pragma once

#include "sentence_transformers/model/runtime.h"

namespace tovana::sentence_transformers {

/// Kernels and threads of our own (`NativeEncoder`), which need nothing installed.
class NativeRuntime final : public Runtime {
 public:
  explicit constexpr NativeRuntime(const Kernels& kernels) noexcept : _kernels(kernels) {}

  std::string_view name() const noexcept override { return "native"; }
  std::size_t get_num_threads() const override;
  void set_num_threads(std::size_t count) const override;
  std::unique_ptr<const Encoder> load_encoder(const Checkpoint& checkpoint,
                                              const TransformerConfig& config,
                                              NumberFormat format) const override;
  const Kernels& kernels() const noexcept override { return _kernels; }

 private:
  const Kernels& _kernels;
};

}  // namespace tovana::sentence_transformers
