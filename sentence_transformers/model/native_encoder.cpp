#include "sentence_transformers/model/native_encoder.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "sentence_transformers/compute/float_block.h"
#include "sentence_transformers/compute/thread_count.h"
#include "sentence_transformers/compute/workers.h"
#include "sentence_transformers/model/encoder_tensors.h"

namespace tovana::sentence_transformers {
namespace {

std::size_t rows_of(const TokenBatch& batch) { return static_cast<std::size_t>(batch.rows()); }

std::size_t longest_text(const TokenBatch& batch) {
  std::int64_t longest = 0;
  for (const TokenBatch::Group& group : batch.groups()) longest = std::max(longest, group.length);
  return static_cast<std::size_t>(longest);
}

std::optional<PackedMatrix> load_projection(const Checkpoint& checkpoint,
                                            const TransformerConfig& config,
                                            const Kernels& kernels) {
  if (config.embedding_width == config.hidden) return std::nullopt;
  const std::string name(EncoderNames(checkpoint, config)->projection);
  const auto depth = static_cast<std::size_t>(config.embedding_width);
  const Matrix weight = checkpoint.tensor(name + ".weight");
  PackedMatrix packed(kernels, depth, weight.rows());
  packed.set_columns(0, weight.rows(), weight.data(), depth,
                     checkpoint.tensor(name + ".bias").data());
  return packed;
}

std::vector<std::optional<RotaryAngles>> rotary_angles(const TransformerConfig& config) {
  std::vector<std::optional<RotaryAngles>> angles;
  for (const AttentionKind& kind : config.attention) {
    auto& own = angles.emplace_back();
    if (kind.rotary) own.emplace(*kind.rotary, static_cast<std::size_t>(config.head_width));
  }
  return angles;
}

}  // namespace

struct NativeEncoder::Workspace {
  BlockPool::Borrowed memory;
  float* hidden;               ///< `[rows x hidden]`: what a half layer is given.
  float* sum;                  ///< `[rows x padded]`
  std::vector<float*> angles;  ///< `[longest text x head width]`, of each kind of attention.
  std::vector<float*> parts;   ///< As the sum, for each shard, when shards work side by side.
  std::vector<Bench> benches;
};

NativeEncoder::NativeEncoder(const Checkpoint& checkpoint, const TransformerConfig& config,
                             const Kernels& kernels)
    : _config(config),
      _kernels(kernels),
      _hidden(static_cast<std::size_t>(config.hidden)),
      _padded(kernels.padded(_hidden)),
      _head_width(static_cast<std::size_t>(config.head_width)),
      _embedding(checkpoint, config, threads_to_compute_on()),
      _embedding_norm(
          load_norm(checkpoint, EncoderNames(checkpoint, config)->embedding_norm, config)),
      _projection(load_projection(checkpoint, config, kernels)),
      _distance_bias(load_distance_bias(checkpoint, config, kernels.panel)),
      _rotary(rotary_angles(config)),
      _weights(checkpoint, config, kernels, threads_to_compute_on()) {}

void NativeEncoder::_begin(const TokenBatch& batch, const Workspace& workspace) const {
  const std::size_t rows = rows_of(batch);
  const std::size_t width = _embedding.width();
  _embedding(batch, workspace.hidden);
  _embedding_norm(_kernels, rows, workspace.hidden, width, workspace.hidden, width);
  if (_projection) {
    _projection->multiply(rows, workspace.hidden, width, workspace.sum,
                          workspace.benches.front().scratch);
    for (std::size_t row = 0; row < rows; ++row) {
      std::copy_n(workspace.sum + row * _padded, _hidden, workspace.hidden + row * _hidden);
    }
  }
  for (std::size_t kind = 0; kind < _rotary.size(); ++kind) {
    if (_rotary[kind]) _rotary[kind]->fill(longest_text(batch), workspace.angles[kind]);
  }
}

void NativeEncoder::_run_shard(std::size_t half, std::size_t index, const TokenBatch& batch,
                               const Workspace& workspace, const Bench& bench, float* out,
                               bool adds) const {
  const Shard& shard = _weights.layers()[half / 2].shards[index];
  const std::size_t rows = rows_of(batch);
  if (half % 2 == 0) {
    _attend(half / 2, shard, batch, workspace, bench);
    shard.attention_output.multiply_unbiased(rows, bench.context, shard.heads.count * _head_width,
                                             out, adds, bench.scratch);
    return;
  }
  const std::size_t stride = shard.intermediate.padded_columns();
  shard.intermediate.multiply(rows, workspace.hidden, _hidden, bench.intermediate, bench.scratch);
  if (_config.family->is_gated()) {
    _kernels.activate_gated(_config.activation, rows, shard.inner, bench.intermediate, stride);
  } else {
    _kernels.activate(_config.activation, bench.intermediate, rows * stride);
  }
  shard.output.multiply_unbiased(rows, bench.intermediate, stride, out, adds, bench.scratch);
}

void NativeEncoder::_attend(std::size_t layer, const Shard& shard, const TokenBatch& batch,
                            const Workspace& workspace, const Bench& bench) const {
  const std::size_t kind =
      _config.attention_of_layer.empty() ? 0 : _config.attention_of_layer[layer];
  const AttentionKind& attention = _config.attention[kind];
  const std::size_t width = shard.heads.count * _head_width;
  const std::size_t stride = shard.query_key_value.padded_columns();
  shard.query_key_value.multiply(rows_of(batch), workspace.hidden, _hidden, bench.query_key_value,
                                 bench.scratch);

  std::size_t row = 0;
  for (const TokenBatch::Group& group : batch.groups()) {
    const auto length = static_cast<std::size_t>(group.length);
    for (std::int64_t text = 0; text < group.texts; ++text, row += length) {
      float* const queries = bench.query_key_value + row * stride;
      if (attention.rotary) {
        _kernels.rotate({.rows = length,
                         .vectors = 2 * shard.heads.count,  // Queries, and keys behind them.
                         .width = _head_width,
                         .angles = workspace.angles[kind],
                         .numbers = queries,
                         .stride = stride});
      }
      for (std::size_t head = 0; head < shard.heads.count; ++head) {
        const float* const query = queries + head * _head_width;
        const float* distance_bias = nullptr;
        if (!_distance_bias.empty()) {
          distance_bias =
              _distance_bias.row(shard.heads.first + head).data() + _config.max_length - 1;
        }
        _kernels.attend({.length = length,
                         .width = _head_width,
                         .query = query,
                         .key = query + width,
                         .value = query + 2 * width,
                         .stride = stride,
                         .before = attention.before,
                         .behind = attention.behind,
                         .scale = 1.0F / std::sqrt(static_cast<float>(_head_width)),
                         .distance_bias = distance_bias,
                         .out = bench.context + row * width + head * _head_width,
                         .out_stride = width,
                         .scratch = bench.scratch});
      }
    }
  }
}

void NativeEncoder::_begin_sum(std::size_t half, Range rows, const Workspace& workspace) const {
  const Layer& layer = _weights.layers()[half / 2];
  const Matrix& bias = half % 2 == 0 ? layer.attention_bias : layer.output_bias;
  const bool is_kept = _config.family->norms_first && half > 0;
  const std::size_t stride = is_kept ? _padded : _hidden;
  const float* const before = is_kept ? workspace.sum : workspace.hidden;
  _add(rows.count, before + rows.first * stride, stride, bias.data(), 0,
       workspace.sum + rows.first * _padded);
}

void NativeEncoder::_normalize_sum(std::size_t half, Range rows, const Workspace& workspace) const {
  const Layer& layer = _weights.layers()[half / 2];
  const LayerNorm& norm = half % 2 == 0 ? layer.attention_norm : layer.output_norm;
  norm(_kernels, rows.count, workspace.sum + rows.first * _padded, _padded,
       workspace.hidden + rows.first * _hidden, _hidden);
}

void NativeEncoder::_add(std::size_t rows, const float* left, std::size_t left_stride,
                         const float* right, std::size_t right_stride, float* out) const {
  _kernels.add({.rows = rows,
                .width = _hidden,
                .left = left,
                .left_stride = left_stride,
                .right = right,
                .right_stride = right_stride,
                .out = out,
                .out_stride = _padded});
}

/// Each batch is a part of its own.
class NativeEncoder::BatchesApart final : public SteppedWork {
 public:
  BatchesApart(const NativeEncoder& encoder, std::span<const TokenBatch> batches,
               const Consumer& consume)
      : _encoder(encoder), _batches(batches), _consume(consume) {}

  void run(std::size_t, std::size_t part) override {
    const TokenBatch& batch = _batches[part];
    const Workspace workspace = _encoder._take_workspace(batch, 1);
    _encoder._begin(batch, workspace);
    const Range rows = {.first = 0, .count = rows_of(batch)};
    for (std::size_t half = 0; half < _encoder._halves(); ++half) {
      _encoder._begin_sum(half, rows, workspace);
      for (std::size_t shard = 0; shard < _encoder._weights.shards(); ++shard) {
        _encoder._run_shard(half, shard, batch, workspace, workspace.benches.front(), workspace.sum,
                            true);
      }
      _encoder._normalize_sum(half, rows, workspace);
    }
    _consume(part, workspace.hidden);
  }

 private:
  const NativeEncoder& _encoder;
  const std::span<const TokenBatch> _batches;
  const Consumer& _consume;
};

/// The first step is the way to the layers, which one thread goes while the others wake up. Then
/// each half layer is two: in one the shards are the parts, in the other shares of the rows are
/// what the shards' sums are taken of.
class NativeEncoder::BatchTogether final : public SteppedWork {
 public:
  BatchTogether(const NativeEncoder& encoder, const TokenBatch& batch)
      : _encoder(encoder),
        _batch(batch),
        _workspace(encoder._take_workspace(batch, encoder._weights.shards())) {}

  std::size_t steps() const { return 1 + 2 * _encoder._halves(); }
  std::size_t parts() const { return _encoder._weights.shards(); }
  const float* states() const { return _workspace.hidden; }

  void run(std::size_t step, std::size_t part) override {
    if (step == 0) {
      if (part == 0) _encoder._begin(_batch, _workspace);
      return;
    }
    const std::size_t half = (step - 1) / 2;
    if (step % 2 == 1) {
      _encoder._run_shard(half, part, _batch, _workspace, _workspace.benches[part],
                          _workspace.parts[part], false);
    } else {
      _add_up(half, share(rows_of(_batch), parts(), part));
    }
  }

 private:
  void _add_up(std::size_t half, Range rows) const {
    _encoder._begin_sum(half, rows, _workspace);
    const std::size_t first = rows.first * _encoder._padded;
    float* const sum = _workspace.sum + first;
    for (const float* part : _workspace.parts) {
      _encoder._add(rows.count, sum, _encoder._padded, part + first, _encoder._padded, sum);
    }
    _encoder._normalize_sum(half, rows, _workspace);
  }

  const NativeEncoder& _encoder;
  const TokenBatch& _batch;
  const Workspace _workspace;
};

void NativeEncoder::operator()(std::span<const TokenBatch> batches, const Consumer& consume) const {
  for (const TokenBatch& batch : batches) _embedding.check(batch);
  const std::size_t threads = threads_to_compute_on();
  // Batches that would leave most threads with nothing to do at the end are done together.
  const std::size_t rest = batches.size() % threads;
  const std::size_t together = rest < std::min(threads, _weights.shards()) ? rest : 0;
  const std::span<const TokenBatch> apart = batches.first(batches.size() - together);
  BatchesApart work(*this, apart, consume);
  run_steps(work, 1, apart.size(), threads);
  for (std::size_t index = apart.size(); index < batches.size(); ++index) {
    BatchTogether batch(*this, batches[index]);
    run_steps(batch, batch.steps(), batch.parts(), threads);
    consume(index, batch.states());
  }
}

NativeEncoder::Workspace NativeEncoder::_take_workspace(const TokenBatch& batch,
                                                        std::size_t benches) const {
  const std::size_t rows = rows_of(batch);
  const std::size_t width = _weights.most_heads() * _head_width;
  const std::size_t query_key_value = FloatSlices::size(rows * _kernels.padded(3 * width));
  const std::size_t context = FloatSlices::size(rows * width);
  const std::size_t intermediate =
      FloatSlices::size(rows * _kernels.padded(_weights.most_intermediate()));
  const std::size_t deepest =
      std::max({_hidden, _embedding.width(), width, _weights.most_intermediate()});
  const std::size_t scratch =
      FloatSlices::size(std::max(_kernels.attention_scratch(longest_text(batch), _head_width),
                                 _kernels.product_scratch(rows, deepest)));
  const std::size_t hidden = FloatSlices::size(rows * std::max(_padded, _embedding.width()));
  const std::size_t sum = FloatSlices::size(rows * _padded);
  const std::size_t angles = FloatSlices::size(longest_text(batch) * _head_width);
  const std::size_t size =
      hidden + sum + _rotary.size() * angles +
      benches * (query_key_value + context + intermediate + scratch + (benches > 1 ? sum : 0));

  Workspace workspace = {.memory = _workspaces.borrow(size),
                         .hidden = nullptr,
                         .sum = nullptr,
                         .angles = {},
                         .parts = {},
                         .benches = {}};
  FloatSlices slices(workspace.memory->data());
  workspace.hidden = slices.take(hidden);
  workspace.sum = slices.take(sum);
  for (std::size_t kind = 0; kind < _rotary.size(); ++kind) {
    workspace.angles.push_back(slices.take(angles));
  }
  for (std::size_t i = 0; i < benches; ++i) {
    workspace.benches.push_back({.query_key_value = slices.take(query_key_value),
                                 .context = slices.take(context),
                                 .intermediate = slices.take(intermediate),
                                 .scratch = slices.take(scratch)});
    if (benches > 1) workspace.parts.push_back(slices.take(sum));
  }
  return workspace;
}

}  // namespace tovana::sentence_transformers
