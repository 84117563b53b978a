#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "sentence_transformers/compute/block_pool.h"
#include "sentence_transformers/compute/kernels.h"
#include "sentence_transformers/compute/matrix.h"
#include "sentence_transformers/compute/packed_matrix.h"
#include "sentence_transformers/model/checkpoint.h"
#include "sentence_transformers/model/encoder.h"
#include "sentence_transformers/model/layer_norm.h"
#include "sentence_transformers/model/native_layers.h"
#include "sentence_transformers/model/rotary_angles.h"
#include "sentence_transformers/model/token_embedding.h"
#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {

/// The encoder on kernels of our own, over weights arranged once for the processor at hand.
///
/// A layer is cut into shards. Each has some of the attention heads and as large a part of the
/// inner vector, the rows and columns of the weight matrices that belong to them, and yields
/// something to be added to every token's vector: shards have nothing to say to one another in
/// between. So threads can share the work in two ways. Many tokens: each thread takes a whole
/// batch from the first layer to the last, and never waits for another. Few: they share each
/// batch's shards, then the rows that the shards' parts are summed in: what each has to fetch from
/// the others' caches is halved, and they meet four times a layer.
///
/// A token's vector is the sum of the shards' parts in their order in both cases. So the same text
/// gives the same states to the bit, whatever it is encoded with and on however many threads.
///
/// Half layers end with a norm: of what they were given and what they add to it. Where they begin
/// with one in the models' own words, that is the one at the end of the half before, and the next
/// adds to what was there before the norm.
class NativeEncoder final : public Encoder {
 public:
  /// Reads the weights: throws what `Checkpoint::tensor` does.
  NativeEncoder(const Checkpoint& checkpoint, const TransformerConfig& config,
                const Kernels& kernels);

  /// Enough that reading the weights does not count; few enough that what one step writes is in
  /// the second-level cache for the next.
  std::int64_t rows_per_batch() const noexcept override { return 128; }
  void operator()(std::span<const TokenBatch> batches, const Consumer& consume) const override;

 private:
  using Layer = NativeLayers::Layer;
  using Shard = NativeLayers::Shard;

  /// What a shard needs to compute with.
  struct Bench {
    float* query_key_value;
    float* context;
    float* intermediate;
    float* scratch;
  };

  /// The memory of one batch's way through the layers.
  struct Workspace;

  class BatchesApart;
  class BatchTogether;

  // The half layers are counted: attention has an even number, what follows it the next.
  std::size_t _halves() const noexcept { return 2 * _weights.layers().size(); }

  void _begin(const TokenBatch& batch, const Workspace& workspace) const;
  /// One shard's part of what a half layer adds: `out = part`, or added to it.
  void _run_shard(std::size_t half, std::size_t shard, const TokenBatch& batch,
                  const Workspace& workspace, const Bench& bench, float* out, bool adds) const;
  void _attend(std::size_t layer, const Shard& shard, const TokenBatch& batch,
               const Workspace& workspace, const Bench& bench) const;
  /// Begins the sum that a half layer ends with: what there was before it, and the bias.
  void _begin_sum(std::size_t half, Range rows, const Workspace& workspace) const;
  void _normalize_sum(std::size_t half, Range rows, const Workspace& workspace) const;
  void _add(std::size_t rows, const float* left, std::size_t left_stride, const float* right,
            std::size_t right_stride, float* out) const;

  Workspace _take_workspace(const TokenBatch& batch, std::size_t benches) const;

  TransformerConfig _config;
  const Kernels& _kernels;
  std::size_t _hidden;
  std::size_t _padded;  ///< `_hidden`, up to whole panels.
  std::size_t _head_width;
  TokenEmbedding _embedding;
  LayerNorm _embedding_norm;
  std::optional<PackedMatrix> _projection;           ///< From the embeddings' width to the layers'.
  Matrix _distance_bias;                             ///< Or empty.
  std::vector<std::optional<RotaryAngles>> _rotary;  ///< Of each kind of attention.
  NativeLayers _weights;
  mutable BlockPool _workspaces;  ///< The memory of earlier batches, for the next.
};

}  // namespace tovana::sentence_transformers
