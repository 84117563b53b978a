#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "sentence_transformers/compute/float_block.h"
#include "sentence_transformers/compute/kernels.h"
#include "sentence_transformers/compute/packed_matrix.h"
#include "sentence_transformers/model/encoder.h"
#include "sentence_transformers/model/token_embedding.h"
#include "tovana/base/mutex.h"

namespace tovana::sentence_transformers {

/// The encoder on kernels of our own, over weights arranged once for the processor at hand.
///
/// A layer is cut into shards. Each has some of the attention heads and as large a part of the
/// inner vector, the rows and columns of the weight matrices that belong to them, and yields
/// something to be added to every token's vector: shards have nothing to say to one another in
/// between. So threads can share the work in two ways. Many tokens: each thread takes a whole
/// batch from the first layer to the last, and never waits for another. Few: they share each
/// batch's shards, and meet twice a layer.
///
/// A token's vector is the sum of the shards' parts in their order in both cases. So the same text
/// gives the same states to the bit, whatever it is encoded with and on however many threads.
class NativeEncoder final : public Encoder {
 public:
  NativeEncoder(Checkpoint checkpoint, const TransformerConfig& config, const Kernels& kernels);
  ~NativeEncoder() override;

  /// Enough that reading the weights does not count; few enough that what one step writes is in
  /// the second-level cache for the next.
  std::int64_t rows_per_batch() const noexcept override { return 128; }
  void operator()(std::span<const TokenBatch> batches, const Consumer& consume) const override;

 private:
  struct Shard {
    std::size_t first_head;
    std::size_t heads;
    PackedMatrix query_key_value;  ///< Of its heads: all queries, then all keys, then all values.
    PackedMatrix attention_output;
    PackedMatrix intermediate;
    PackedMatrix output;
  };

  struct Layer {
    std::vector<Shard> shards;
    at::Tensor attention_bias;
    LayerNorm attention_norm;
    at::Tensor output_bias;
    LayerNorm output_norm;
  };

  /// What a shard needs to compute with.
  struct Bench {
    float* query_key_value;
    float* context;
    float* intermediate;
    float* scratch;
  };

  /// The memory of one batch's way through the layers.
  struct Workspace;

  struct Weights;
  class Load;
  class BatchesApart;
  class BatchTogether;

  Layer _load_layer(std::size_t index, float* memory) const;
  std::size_t _layer_size() const;
  std::size_t _heads_before(std::size_t shard) const;
  std::size_t _inner_before(std::size_t shard) const;

  void _begin(const TokenBatch& batch, const Workspace& workspace) const;
  /// One shard's part of a half layer, attention or what follows it: `out = part`, or added to it.
  void _attend(const Shard& shard, const TokenBatch& batch, const float* hidden, const Bench& bench,
               float* out, bool adds) const;
  void _feed_forward(const Shard& shard, const TokenBatch& batch, const float* hidden,
                     const Bench& bench, float* out, bool adds) const;
  void _add(const TokenBatch& batch, const float* left, std::size_t left_stride, const float* right,
            std::size_t right_stride, float* out) const;
  void _normalize(const TokenBatch& batch, const LayerNorm& norm, const float* in,
                  std::size_t in_stride, float* out) const;

  std::unique_ptr<Workspace> _take_workspace(const TokenBatch& batch, std::size_t benches) const;
  void _give_back(std::unique_ptr<Workspace> workspace) const;

  TransformerConfig _config;
  const Kernels& _kernels;
  std::size_t _hidden;
  std::size_t _padded;  ///< `_hidden`, up to whole panels.
  std::size_t _head_width;
  std::size_t _shards;
  Checkpoint _checkpoint;  ///< Owns the memory that the tables lie in.
  TokenEmbedding _embedding;
  LayerNorm _embedding_norm;
  at::Tensor _distance_bias;  ///< Undefined for BERT.
  FloatBlock _memory;         ///< That of the shards' matrices.
  std::vector<Layer> _layers;

  mutable Mutex _lock;
  /// Those of earlier batches, for the next.
  mutable std::vector<std::unique_ptr<Workspace>> _workspaces TOVANA_GUARDED_BY(_lock);
};

}  // namespace tovana::sentence_transformers
