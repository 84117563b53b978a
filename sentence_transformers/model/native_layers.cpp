#include "sentence_transformers/model/native_layers.h"

#include <algorithm>
#include <string>

#include "sentence_transformers/compute/workers.h"
#include "sentence_transformers/model/encoder_tensors.h"

namespace tovana::sentence_transformers {
namespace {

/// Few enough that each still has whole heads and long rows, enough to keep four threads busy.
constexpr std::size_t kMostShards = 4;

/// The part of `index` when `count` things are divided into `parts`.
Range share(std::size_t count, std::size_t parts, std::size_t index) {
  const std::size_t first = count * index / parts;
  return {.first = first, .count = count * (index + 1) / parts - first};
}

}  // namespace

/// Each layer is a part of its own.
class NativeLayers::Load final : public SteppedWork {
 public:
  Load(const Checkpoint& checkpoint, const TransformerConfig& config, const Kernels& kernels,
       NativeLayers& layers)
      : _checkpoint(checkpoint),
        _config(config),
        _kernels(kernels),
        _layers(layers),
        _hidden(static_cast<std::size_t>(config.hidden)),
        _inner(static_cast<std::size_t>(config.intermediate)) {
    const auto heads = static_cast<std::size_t>(config.heads);
    const std::size_t head_width = _hidden / heads;
    for (std::size_t shard = 0; shard < layers._shards; ++shard) {
      _head_shares.push_back(share(heads, layers._shards, shard));
      const Range& own = _head_shares.back();
      _width_shares.push_back({own.first * head_width, own.count * head_width});
      _inner_shares.push_back(share(_inner, layers._shards, shard));
      const std::size_t width = _width_shares.back().count;
      const std::size_t inner = _inner_shares.back().count;
      _layer_size += PackedMatrix::size(kernels, _hidden, 3 * width) +
                     PackedMatrix::size(kernels, width, _hidden) +
                     PackedMatrix::size(kernels, _hidden, inner) +
                     PackedMatrix::size(kernels, inner, _hidden);
    }
    const auto count = static_cast<std::size_t>(config.layers);
    layers._memory = FloatBlock(count * _layer_size);
    layers._layers.resize(count);
  }

  void run(std::size_t, std::size_t part) override {
    const LayerNames names(_config.architecture, static_cast<std::int64_t>(part));
    Layer& layer = _layers._layers[part];
    _make_shards(layer, _layers._memory.data() + part * _layer_size);
    std::size_t place = 0;
    for (const std::string* name : {&names.query, &names.key, &names.value}) {
      _pack_rows(*name, _width_shares, place++, layer, &Shard::query_key_value);
    }
    _pack_columns(names.attention_output, _hidden, _width_shares, layer, &Shard::attention_output);
    _pack_rows(names.intermediate, _inner_shares, 0, layer, &Shard::intermediate);
    _pack_columns(names.output, _inner, _inner_shares, layer, &Shard::output);
    layer.attention_bias = _checkpoint.tensor(names.attention_output + ".bias");
    layer.attention_norm = load_norm(_checkpoint, names.attention_norm, _config);
    layer.output_bias = _checkpoint.tensor(names.output + ".bias");
    layer.output_norm = load_norm(_checkpoint, names.output_norm, _config);
  }

  void finish(std::size_t) override {}

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
                                   .intermediate = matrix(_hidden, inner),
                                   .output = matrix(inner, _hidden)});
    }
  }

  /// Gives each shard its share of a weight's rows, and of the bias: columns of its matrix, in which
  /// those of `place` shares stand before them.
  void _pack_rows(const std::string& name, const std::vector<Range>& shares, std::size_t place,
                  Layer& layer, PackedMatrix Shard::*matrix) const {
    const Matrix bias = _checkpoint.tensor(name + ".bias");
    _checkpoint.for_rows(
        name + ".weight", [&](std::size_t first, std::size_t count, const float* rows) {
          for (std::size_t shard = 0; shard < shares.size(); ++shard) {
            const Range& own = shares[shard];
            const std::size_t begin = std::max(first, own.first);
            const std::size_t end = std::min(first + count, own.first + own.count);
            if (begin >= end) continue;
            (layer.shards[shard].*matrix)
                .set_columns(place * own.count + begin - own.first, end - begin,
                             rows + (begin - first) * _hidden, _hidden, bias.data() + begin);
          }
        });
  }

  /// Gives each shard its share of a weight's columns, of which there are `width`; no bias.
  void _pack_columns(const std::string& name, std::size_t width, const std::vector<Range>& shares,
                     Layer& layer, PackedMatrix Shard::*matrix) const {
    _checkpoint.for_rows(
        name + ".weight", [&](std::size_t first, std::size_t count, const float* rows) {
          for (std::size_t shard = 0; shard < shares.size(); ++shard) {
            (layer.shards[shard].*matrix)
                .set_columns(first, count, rows + shares[shard].first, width, nullptr);
          }
        });
  }

  const Checkpoint& _checkpoint;
  const TransformerConfig& _config;
  const Kernels& _kernels;
  NativeLayers& _layers;
  const std::size_t _hidden;
  const std::size_t _inner;
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
      _most_inner((static_cast<std::size_t>(config.intermediate) + _shards - 1) / _shards) {
  Load load(checkpoint, config, kernels, *this);
  run_steps(load, 1, _layers.size(), threads);
}

}  // namespace tovana::sentence_transformers
