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

/// The names that a layer's tensors have in a checkpoint, without ".weight" and ".bias".
struct LayerNames {
  LayerNames(Architecture architecture, std::int64_t index);

  std::string query, key, value;
  std::string attention_output;
  std::string attention_norm;
  std::string intermediate;
  std::string output;
  std::string output_norm;
};

/// The checkpoint of an encoder, with every tensor that the encoder has, in the shape that `config`
/// asks for. Throws ModelFilesError, naming file and member or tensor, when the weights are not
/// those of `config`. Reads none of their numbers.
Checkpoint open_encoder_checkpoint(const files::ModelDirectory& directory,
                                   const TransformerConfig& config);

/// The layer norm `name`.
LayerNorm load_norm(const Checkpoint& checkpoint, const std::string& name,
                    const TransformerConfig& config);

/// What MPNet adds to the scores of two tokens: `[heads x (2 length - 1 + spare)]`, of which the
/// number for a key's place less a query's, plus `length - 1`, counts. The last `spare` are 0.
/// Empty for BERT.
Matrix load_distance_bias(const Checkpoint& checkpoint, const TransformerConfig& config,
                          std::size_t spare);

}  // namespace tovana::sentence_transformers
