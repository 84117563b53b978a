#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "sentence_transformers/compute/kernels.h"
#include "sentence_transformers/model/activation.h"
#include "sentence_transformers/model/families/family.h"
#include "sentence_transformers/tokenizer/tokenizer_files.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

/// The buckets into which MPNet's code sorts distances, whatever number of them the configuration
/// has: more are in the weights, and never asked for.
inline constexpr std::int64_t kMPNetBuckets = 32;

/// Positions as angles by which queries and keys are turned (RoPE): a head's i-th pair of numbers
/// by position / factor / theta^(2i / width of the head).
struct RotaryPositions {
  double theta;
  double factor;
};

/// What the attention of some layers looks at.
struct AttentionKind {
  std::size_t before = kAllTokens;  ///< How many tokens before its own a token sees.
  std::size_t behind = kAllTokens;  ///< The same of those behind it.
  std::optional<RotaryPositions> rotary;
};

/// What a Transformer module's configuration files say about its encoder. Counts are at least 1
/// where nothing else is said.
struct TransformerConfig {
  const Family* family;  ///< What it is called, and what its tensors are.

  std::int64_t vocabulary;        ///< Rows of the table of words.
  std::int64_t positions;         ///< Rows of the table of positions, if there is one.
  std::int64_t padding_id;        ///< Of `PositionTable::behind_padding`, at least 0.
  std::int64_t token_types;       ///< Rows of the table of token types; 0 for none.
  std::int64_t embedding_width;   ///< Of these tables' rows.
  std::int64_t distance_buckets;  ///< Rows of the table of distances; 0 for none.

  std::int64_t layers;
  std::int64_t hidden;  ///< Numbers in a token's vector.
  std::int64_t heads;
  std::int64_t head_width;
  std::int64_t intermediate;
  std::vector<AttentionKind> attention;
  std::vector<std::size_t> attention_of_layer;  ///< The index of a layer's kind.
  Biases biases;
  Activation activation;
  double norm_eps;

  bool generates;  ///< Made to go on writing a text, of which its last token then says the most.
  /// The most tokens of a text, special ones included, that are read: the rest is cut off. The
  /// table of positions has a row for each.
  std::size_t max_length;
  TokenizerOptions tokenizer;

  /// Of all queries, side by side.
  std::int64_t attention_width() const noexcept { return heads * head_width; }
};

/// Reads config.json, the length in tokenizer_config.json and, of a module (see
/// `read_module_list`), sentence_bert_config.json: a plain model's counts for nothing. Throws
/// ModelFilesError, naming file and fault, for a model of another kind or with values that make no
/// model.
TransformerConfig read_transformer_config(const files::ModelDirectory& directory, bool is_module);

}  // namespace tovana::sentence_transformers
