#pragma once

#include <cstddef>
#include <cstdint>

#include "sentence_transformers/files/model_directory.h"
#include "sentence_transformers/model/activation.h"

namespace tovana::sentence_transformers {

enum class Architecture { bert, mpnet };

/// What a Transformer module's configuration files say about its encoder. All counts are at
/// least 1.
struct TransformerConfig {
  Architecture architecture;
  std::int64_t vocabulary;   ///< Rows of the table of words.
  std::int64_t positions;    ///< Rows of the table of positions.
  std::int64_t token_types;  ///< Rows of the table of token types; MPNet has none.
  std::int64_t hidden;       ///< Numbers in a token's vector; a multiple of `heads`.
  std::int64_t layers;
  std::int64_t heads;
  std::int64_t intermediate;
  Activation activation;
  double layer_norm_eps;
  /// The most tokens of a text, special ones included, that are read: the rest is cut off. The
  /// table of positions has a row for each.
  std::size_t max_length;
  bool lowercases_first;  ///< Whether texts are lower-cased before the tokenizer gets them.
};

/// Reads config.json, sentence_bert_config.json and the length in tokenizer_config.json. Throws
/// ValueError, naming file and fault, for a model of another kind or with values that make no
/// model.
TransformerConfig read_transformer_config(const ModelDirectory& directory);

}  // namespace tovana::sentence_transformers
