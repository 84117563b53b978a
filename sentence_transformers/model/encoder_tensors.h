#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "sentence_transformers/compute/matrix.h"
#include "sentence_transformers/model/checkpoint.h"
#include "sentence_transformers/model/layer_norm.h"
#include "sentence_transformers/model/transformer_config.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

/// A weight matrix, and a bias if there is one, in a checkpoint: rows of the tensors `name`.weight
/// and `name`.bias.
struct StoredLinear {
  std::string name;
  Range rows;
  bool has_bias;
};

/// What the two halves of a layer consist of, attention and what follows it.
struct LayerTensors {
  StoredLinear query, key, value;
  StoredLinear attention_output;
  StoredLinear inner;
  StoredLinear factor;  ///< No rows where the family has none.
  StoredLinear output;
  /// The norm of what is there behind each half: its own, or that with which the next begins.
  std::string attention_norm;
  std::string output_norm;
};

/// What the tensors of an encoder are called in its checkpoint: by the first of the family's
/// spellings by which there is a layer.
class EncoderNames {
 public:
  EncoderNames(const Checkpoint& checkpoint, const TransformerConfig& config);

  /// Names of tensors in a layer are what stands behind the layer's number: `in_layer` has the whole.
  const TensorNames* operator->() const noexcept { return &_names; }

  std::string in_layer(std::int64_t index, std::string_view name) const;
  LayerTensors layer(std::int64_t index) const;

 private:
  const TransformerConfig& _config;
  const TensorNames& _names;
};

/// The checkpoint of an encoder, with every tensor that the encoder has, in the shape that `config`
/// asks for. Throws ModelFilesError, naming file and member or tensor, when the weights are not
/// those of `config`. Reads none of their numbers.
Checkpoint open_encoder_checkpoint(const files::ModelDirectory& directory,
                                   const TransformerConfig& config);

/// The layer norm `name`.
LayerNorm load_norm(const Checkpoint& checkpoint, std::string_view name,
                    const TransformerConfig& config);

/// A bias, of zeros where there is none.
Matrix load_bias(const Checkpoint& checkpoint, const StoredLinear& linear);

/// What MPNet adds to the scores of two tokens: `[heads x (2 length - 1 + spare)]`, of which the
/// number for a key's place less a query's, plus `length - 1`, counts. The last `spare` are 0.
/// Empty where nothing is added.
Matrix load_distance_bias(const Checkpoint& checkpoint, const TransformerConfig& config,
                          std::size_t spare);

}  // namespace tovana::sentence_transformers
