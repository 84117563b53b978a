#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "sentence_transformers/compute/float_block.h"
#include "sentence_transformers/compute/kernels.h"
#include "sentence_transformers/compute/matrix.h"
#include "sentence_transformers/compute/packed_matrix.h"
#include "sentence_transformers/model/checkpoint.h"
#include "sentence_transformers/model/layer_norm.h"
#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {

/// The part of `index` when `count` things are divided into `parts`.
Range share(std::size_t count, std::size_t parts, std::size_t index);

/// The weights of an encoder's layers, arranged for the native encoder (which says what shards are
/// for). Immutable.
class NativeLayers {
 public:
  struct Shard {
    Range heads;
    PackedMatrix query_key_value;  ///< Of its heads: all queries, then all keys, then all values.
    PackedMatrix attention_output;
    std::size_t inner;          ///< Its part of the inner vector.
    PackedMatrix intermediate;  ///< `inner` columns, and behind them those of as many factors.
    PackedMatrix output;
  };

  struct Layer {
    std::vector<Shard> shards;
    Matrix attention_bias;
    LayerNorm attention_norm;  ///< Of what is there behind attention; `output_norm` behind all.
    Matrix output_bias;
    LayerNorm output_norm;
  };

  /// Reads and arranges them, on that many threads: each number is read once, and of those that are
  /// not arranged yet, each thread has a few rows in memory. Throws what `Checkpoint::tensor` does.
  NativeLayers(const Checkpoint& checkpoint, const TransformerConfig& config,
               const Kernels& kernels, std::size_t threads);

  std::span<const Layer> layers() const noexcept { return _layers; }

  std::size_t shards() const noexcept { return _shards; }
  /// What the largest shard has of the heads, and the columns of its `intermediate`.
  std::size_t most_heads() const noexcept { return _most_heads; }
  std::size_t most_intermediate() const noexcept { return _most_intermediate; }

 private:
  class Load;

  std::size_t _shards;
  std::size_t _most_heads;
  std::size_t _most_intermediate;
  FloatBlock _memory;  ///< That of the shards' matrices.
  std::vector<Layer> _layers;
};

}  // namespace tovana::sentence_transformers
