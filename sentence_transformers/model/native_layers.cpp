#include "sentence_transformers/model/native_layers.h"

#include <algorithm>
#include <string>

#include "sentence_transformers/compute/workers.h"
#include "sentence_transformers/model/encoder_tensors.h"

namespace tovana::sentence_transformers {
namespace {

/// Few enough that each still has whole heads and long rows, enough to keep four threads busy.
constexpr std::size_t kMostShards = 4;

}  // namespace

Range share(std::size_t count, std::size_t parts, std::size_t index) {
  const std::size_t first = count * index / parts;
  return {.first = first, .count = count * (index + 1) / parts - first};
}

/// Each layer is a part of its own.
class NativeLayers::Load final : public SteppedWork {
 public:
  Load(const Checkpoint& checkpoint, const TransformerConfig& config, const Kernels& kernels,
       NativeLayers& layers)
      : _checkpoint(checkpoint),
        _config(config),
        _names(checkpoint, config),
        _kernels(kernels),
        _layers(layers),
        _hidden(static_cast<std::size_t>(config.hidden)),
        _gates(config.family->is_gated() ? 2 : 1) {
    const auto heads = static_cast<std::size_t>(config.heads);
    const auto head_width = static_cast<std::size_t>(config.head_width);
    const auto all_inner = static_cast<std::size_t>(config.intermediate);
    for (std::size_t shard = 0; shard < layers._shards; ++shard) {
      _head_shares.push_back(share(heads, layers._shards, shard));
      const Range& own = _head_shares.back();
      _width_shares.push_back({own.first * head_width, own.count * head_width});
      _inner_shares.push_back(share(all_inner, layers._shards, shard));
      const std::size_t width = _width_shares.back().count;
      const std::size_t inner = _inner_shares.back().count;
      _layer_size += PackedMatrix::size(kernels, _hidden, 3 * width) +
                     PackedMatrix::size(kernels, width, _hidden) +
                     PackedMatrix::size(kernels, _hidden, _gates * inner) +
                     PackedMatrix::size(kernels, inner, _hidden);
    }
    const auto count = static_cast<std::size_t>(config.layers);
    layers._memory = FloatBlock(count * _layer_size);
    layers._layers.resize(count);
  }

  void run(std::size_t, std::size_t part) override {
    const LayerTensors tensors = _names.layer(static_cast<std::int64_t>(part));
    Layer& layer = _layers._layers[part];
    _make_shards(layer, _layers._memory.data() + part * _layer_size);
    std::size_t place = 0;
    for (const StoredLinear* linear : {&tensors.query, &tensors.key, &tensors.value}) {
      _pack_rows(*linear, _width_shares, place++, layer, &Shard::query_key_value);
    }
    _pack_columns(tensors.attention_output, _width_shares, layer, &Shard::attention_output);
    _pack_rows(tensors.inner, _inner_shares, 0, layer, &Shard::intermediate);
    if (_gates == 2) _pack_rows(tensors.factor, _inner_shares, 1, layer, &Shard::intermediate);
    _pack_columns(tensors.output, _inner_shares, layer, &Shard::output);
    layer.attention_bias = load_bias(_checkpoint, tensors.attention_output);
    layer.attention_norm = load_norm(_checkpoint, tensors.attention_norm, _config);
    layer.output_bias = load_bias(_checkpoint, tensors.output);
    layer.output_norm = load_norm(_checkpoint, tensors.output_norm, _config);
  }

 private:
  void _make_shards(Layer& layer, float* memory) const {
    FloatSlices slices(memory);
    const auto matrix = [&](std::size_t depth, std::size_t columns) {
      return PackedMatrix(_kernels, depth, columns,
                          slices.take(PackedMatrix::size(_kernels, depth, columns)));
    };
    for (std::size_t shard = 0; shard < _layers._shards; ++shard) {
      const std::size_t width = _width_shares[shard].count;
      const std::size_t inner = _inner_shares[shard].count;
      layer.shards.push_back(Shard{.heads = _head_shares[shard],
                                   .query_key_value = matrix(_hidden, 3 * width),
                                   .attention_output = matrix(width, _hidden),
                                   .inner = inner,
                                   .intermediate = matrix(_hidden, _gates * inner),
                                   .output = matrix(inner, _hidden)});
    }
  }

  /// Gives each shard its share of a weight's rows, and of the bias: columns of its matrix, in which
  /// those of `place` shares stand before them.
  void _pack_rows(const StoredLinear& linear, const std::vector<Range>& shares, std::size_t place,
                  Layer& layer, PackedMatrix Shard::*matrix) const {
    const Matrix bias = load_bias(_checkpoint, linear);
    _checkpoint.for_rows(linear.name + ".weight", linear.rows,
                         [&](std::size_t first, std::size_t count, const float* rows) {
                           for (std::size_t shard = 0; shard < shares.size(); ++shard) {
                             const Range& own = shares[shard];
                             const std::size_t begin = std::max(first, own.first);
                             const std::size_t end = std::min(first + count, own.first + own.count);
                             if (begin >= end) continue;
                             (layer.shards[shard].*matrix)
                                 .set_columns(place * own.count + begin - own.first, end - begin,
                                              rows + (begin - first) * _hidden, _hidden,
                                              bias.data() + begin);
                           }
                         });
  }

  /// Gives each shard its share of a weight's columns; no bias.
  void _pack_columns(const StoredLinear& linear, const std::vector<Range>& shares, Layer& layer,
                     PackedMatrix Shard::*matrix) const {
    const std::size_t width = shares.back().first + shares.back().count;
    _checkpoint.for_rows(linear.name + ".weight", linear.rows,
                         [&](std::size_t first, std::size_t count, const float* rows) {
                           for (std::size_t shard = 0; shard < shares.size(); ++shard) {
                             (layer.shards[shard].*matrix)
                                 .set_columns(first, count, rows + shares[shard].first, width,
                                              nullptr);
                           }
                         });
  }

  const Checkpoint& _checkpoint;
  const TransformerConfig& _config;
  const EncoderNames _names;
  const Kernels& _kernels;
  NativeLayers& _layers;
  const std::size_t _hidden;
  const std::size_t _gates;  ///< Columns of `intermediate` for each number of the inner vector.
  std::vector<Range> _head_shares;
  std::vector<Range> _width_shares;  ///< The same, in numbers of a token's vector.
  std::vector<Range> _inner_shares;
  std::size_t _layer_size = 0;
};

NativeLayers::NativeLayers(const Checkpoint& checkpoint, const TransformerConfig& config,
                           const Kernels& kernels, std::size_t threads)
    : _shards(std::min({kMostShards, static_cast<std::size_t>(config.heads),
                        static_cast<std::size_t>(config.intermediate)})),
      _most_heads((static_cast<std::size_t>(config.heads) + _shards - 1) / _shards),
      _most_intermediate((static_cast<std::size_t>(config.intermediate) + _shards - 1) / _shards *
                         (config.family->is_gated() ? 2 : 1)) {
  Load load(checkpoint, config, kernels, *this);
  run_steps(load, 1, _layers.size(), threads);
}

}  // namespace tovana::sentence_transformers
