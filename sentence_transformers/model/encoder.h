#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <ATen/core/Tensor.h>

#include "sentence_transformers/model/checkpoint.h"
#include "sentence_transformers/model/layer_norm.h"
#include "sentence_transformers/model/linear.h"
#include "sentence_transformers/model/token_batch.h"
#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {

/// The encoder of BERT and of MPNet, in float32: from tokens to a vector for each token that knows
/// its neighbours.
///
/// The two differ in where a token's position comes in. BERT adds a vector for it, counted from 0.
/// MPNet adds one too, but counts from 2 and skips padding tokens written in the text; and it adds
/// to every attention score a number that depends on how far apart the two tokens are.
///
/// Threads: immutable; any number may encode at once, each with its own intra-op threads.
class Encoder {
 public:
  /// Throws ValueError, naming the tensor, when the weights are not those of `config`.
  Encoder(const ModelDirectory& directory, const TransformerConfig& config, LinearKernel kernel);

  /// The last hidden states, `[batch.rows() x hidden]`. Throws RuntimeError for an id that the
  /// model has no row for; no text of the batch may be longer than `config.max_length`.
  at::Tensor operator()(const TokenBatch& batch) const;

 private:
  struct Layer {
    Linear query_key_value;  ///< Three matrices in one: `[3 * hidden x hidden]`.
    Linear attention_output;
    LayerNorm attention_norm;
    Linear intermediate;
    Linear output;
    LayerNorm output_norm;
  };

  Layer _load_layer(std::int64_t index, LinearKernel kernel) const;
  Linear _load_linear(const std::string& name, std::int64_t out, std::int64_t in,
                      Activation activation, LinearKernel kernel) const;
  LayerNorm _load_norm(const std::string& name) const;

  at::Tensor _embed(const TokenBatch& batch) const;
  /// What MPNet adds to the scores of texts of `length` tokens, `[1 x heads x length x length]`.
  at::Tensor _relative_bias(std::int64_t length) const;
  /// `biases` has one for each group, or is empty.
  at::Tensor _attend(const at::Tensor& query_key_value, const TokenBatch& batch,
                     const std::vector<at::Tensor>& biases) const;

  TransformerConfig _config;
  Checkpoint _checkpoint;  ///< Owns the memory that the tables lie in.
  at::Tensor _words;       ///< `[vocabulary x hidden]`; only the rows that texts ask for are read.
  at::Tensor _positions;
  at::Tensor _token_type;     ///< BERT: the row that every token gets, `[hidden]`.
  at::Tensor _distance_bias;  ///< MPNet: `[buckets x heads]`.
  LayerNorm _embedding_norm;
  std::vector<Layer> _layers;
};

}  // namespace tovana::sentence_transformers
