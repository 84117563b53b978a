#pragma once

#include "sentence_transformers/model/runtime.h"

namespace tovana::sentence_transformers {

/// Kernels and threads of our own (`NativeEncoder`), which need nothing installed.
class NativeRuntime final : public Runtime {
 public:
  /// Float32 is computed with the former, bfloat16 with the latter, if there are any.
  explicit constexpr NativeRuntime(const Kernels& kernels,
                                   const Kernels* bfloat16 = nullptr) noexcept
      : _kernels(kernels), _bfloat16(bfloat16) {}

  std::string_view name() const noexcept override { return "native"; }
  std::size_t get_num_threads() const override;
  void set_num_threads(std::size_t count) const override;
  bool supports(NumberFormat format) const noexcept override;
  std::unique_ptr<const Encoder> load_encoder(const Checkpoint& checkpoint,
                                              const TransformerConfig& config,
                                              NumberFormat format) const override;
  const Kernels& kernels() const noexcept override { return _kernels; }

 private:
  const Kernels& _kernels;
  const Kernels* _bfloat16;
};

}  // namespace tovana::sentence_transformers
