#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sentence_transformers/model/encoder.h"
#include "sentence_transformers/model/token_embedding.h"

namespace tovana::sentence_transformers {

/// The encoder as a chain of libtorch's operators, for any processor that libtorch is built for.
class PlainEncoder final : public Encoder {
 public:
  PlainEncoder(Checkpoint checkpoint, const TransformerConfig& config);

  std::int64_t rows_per_batch() const noexcept override { return 1024; }
  void operator()(std::span<const TokenBatch> batches, const Consumer& consume) const override;

 private:
  struct Linear {
    at::Tensor weight;
    at::Tensor bias;

    at::Tensor operator()(const at::Tensor& rows) const;
  };

  struct Layer {
    Linear query_key_value;  ///< Three matrices in one: `[3 * hidden x hidden]`.
    Linear attention_output;
    LayerNorm attention_norm;
    Linear intermediate;
    Linear output;
    LayerNorm output_norm;
  };

  Layer _load_layer(std::int64_t index) const;
  Linear _load_linear(const std::string& name, std::int64_t out, std::int64_t in) const;

  at::Tensor _encode(const TokenBatch& batch) const;
  /// What is added to the scores of texts of `length` tokens, `[1 x heads x length x length]`.
  at::Tensor _relative_bias(std::int64_t length) const;
  at::Tensor _attend(const at::Tensor& query_key_value, const TokenBatch& batch,
                     const std::vector<at::Tensor>& biases) const;

  TransformerConfig _config;
  Checkpoint _checkpoint;  ///< Owns the memory that weights lie in.
  TokenEmbedding _embedding;
  LayerNorm _embedding_norm;
  at::Tensor _distance_bias;  ///< Undefined for BERT.
  std::vector<Layer> _layers;
};

}  // namespace tovana::sentence_transformers
