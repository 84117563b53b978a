#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include <ATen/core/Tensor.h>

#include "sentence_transformers/compute/matrix.h"
#include "sentence_transformers/model/checkpoint.h"
#include "sentence_transformers/model/encoder.h"
#include "sentence_transformers/model/encoder_tensors.h"
#include "sentence_transformers/model/token_embedding.h"
#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {

/// The encoder of BERT or MPNet as a chain of libtorch's operators, for any processor that libtorch
/// is built for.
class TorchEncoder final : public Encoder {
 public:
  /// Throws ModelFilesError, naming the checkpoint's file, for an encoder of another family.
  static void check(const Checkpoint& checkpoint, const TransformerConfig& config);

  /// Reads the weights, on that many threads where it can: throws what `Checkpoint::tensor` does.
  TorchEncoder(const Checkpoint& checkpoint, const TransformerConfig& config, std::size_t threads);

  std::int64_t rows_per_batch() const noexcept override { return 1024; }
  void operator()(std::span<const TokenBatch> batches, const Consumer& consume) const override;

 private:
  struct Linear {
    at::Tensor weight;
    at::Tensor bias;

    at::Tensor operator()(const at::Tensor& rows) const;
  };

  struct Norm {
    at::Tensor weight;
    at::Tensor bias;
    double eps;

    at::Tensor operator()(const at::Tensor& rows) const;
  };

  struct Layer {
    Linear query_key_value;  ///< Three matrices in one: `[3 * hidden x hidden]`.
    Linear attention_output;
    Norm attention_norm;
    Linear intermediate;
    Linear output;
    Norm output_norm;
  };

  static Linear _load_linear(const Checkpoint& checkpoint, const StoredLinear& linear);
  Norm _load_norm(const Checkpoint& checkpoint, std::string_view name) const;
  Layer _load_layer(const Checkpoint& checkpoint, const LayerTensors& tensors) const;

  at::Tensor _encode(const TokenBatch& batch) const;
  /// What is added to the scores of texts of `length` tokens, `[1 x heads x length x length]`.
  at::Tensor _relative_bias(std::int64_t length) const;
  at::Tensor _attend(const at::Tensor& query_key_value, const TokenBatch& batch,
                     const std::vector<at::Tensor>& biases) const;

  TransformerConfig _config;
  TokenEmbedding _embedding;
  Norm _embedding_norm;
  Matrix _distance_bias;  ///< Empty for BERT.
  std::vector<Layer> _layers;
};

}  // namespace tovana::sentence_transformers
