#pragma once

#include <cstddef>
#include <cstdint>

#include "sentence_transformers/model/activation.h"
#include "sentence_transformers/tokenizer/tokenizer_files.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

enum class Architecture { bert, mpnet };

/// The buckets into which MPNet's code sorts distances, whatever number of them the configuration
/// has: more are in the weights, and never asked for.
inline constexpr std::int64_t kMPNetBuckets = 32;

/// What a Transformer module's configuration files say about its encoder. Every count is at
/// least 1.
struct TransformerConfig {
  Architecture architecture;
  std::int64_t vocabulary;   ///< Rows of the table of words.
  std::int64_t positions;    ///< Rows of the table of positions.
  std::int64_t token_types;  ///< Rows of the table of token types; MPNet has none.
  std::int64_t hidden;       ///< Numbers in a token's vector; a multiple of `heads`.
  std::int64_t layers;
  std::int64_t heads;
  std::int64_t distance_buckets;  ///< MPNet: rows of the table of distances; BERT has none.
  std::int64_t intermediate;
  Activation activation;
  double layer_norm_eps;
  bool generates;  ///< Made to go on writing a text, of which its last token then says the most.
  /// The most tokens of a text, special ones included, that are read: the rest is cut off. The
  /// table of positions has a row for each.
  std::size_t max_length;
  TokenizerOptions tokenizer;
};

/// Reads config.json, the length in tokenizer_config.json and, of a module (see
/// `read_module_list`), sentence_bert_config.json: a plain model's counts for nothing. Throws
/// ModelFilesError, naming file and fault, for a model of another kind or with values that make no
/// model.
TransformerConfig read_transformer_config(const files::ModelDirectory& directory, bool is_module);

}  // namespace tovana::sentence_transformers
