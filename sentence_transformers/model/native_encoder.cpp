#include "sentence_transformers/model/native_encoder.h"

#include <algorithm>
#include <cmath>
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

}  // namespace

struct NativeEncoder::Workspace {
  BlockPool::Borrowed memory;
  float* hidden;              ///< `[rows x hidden]`
  float* sum;                 ///< `[rows x padded]`
  std::vector<float*> parts;  ///< The same for each shard, when shards work side by side.
  std::vector<Bench> benches;
};

NativeEncoder::NativeEncoder(const Checkpoint& checkpoint, const TransformerConfig& config,
                             const Kernels& kernels)
    : _config(config),
      _kernels(kernels),
      _hidden(static_cast<std::size_t>(config.hidden)),
      _padded(kernels.padded(_hidden)),
      _head_width(_hidden / static_cast<std::size_t>(config.heads)),
      _embedding(checkpoint, config, threads_to_compute_on()),
      _embedding_norm(load_norm(checkpoint, "embeddings.LayerNorm", config)),
      _distance_bias(load_distance_bias(checkpoint, config, kernels.panel)),
      _weights(checkpoint, config, kernels, threads_to_compute_on()) {}

void NativeEncoder::_begin(const TokenBatch& batch, const Workspace& workspace) const {
  _embedding(batch, workspace.hidden);
  _embedding_norm(_kernels, rows_of(batch), workspace.hidden, _hidden, workspace.hidden, _hidden);
}

void NativeEncoder::_attend(const Shard& shard, const TokenBatch& batch, const float* hidden,
                            const Bench& bench, float* out, bool adds) const {
  const std::size_t rows = rows_of(batch);
  const std::size_t width = shard.heads.count * _head_width;
  const std::size_t stride = shard.query_key_value.padded_columns();
  shard.query_key_value.multiply(rows, hidden, _hidden, bench.query_key_value);

  std::size_t row = 0;
  for (const TokenBatch::Group& group : batch.groups()) {
    const auto length = static_cast<std::size_t>(group.length);
    for (std::int64_t text = 0; text < group.texts; ++text, row += length) {
      for (std::size_t head = 0; head < shard.heads.count; ++head) {
        const float* const query = bench.query_key_value + row * stride + head * _head_width;
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
                         .scale = 1.0F / std::sqrt(static_cast<float>(_head_width)),
                         .distance_bias = distance_bias,
                         .out = bench.context + row * width + head * _head_width,
                         .out_stride = width,
                         .scratch = bench.scratch});
      }
    }
  }
  shard.attention_output.multiply_unbiased(rows, bench.context, width, out, adds);
}

void NativeEncoder::_feed_forward(const Shard& shard, const TokenBatch& batch, const float* hidden,
                                  const Bench& bench, float* out, bool adds) const {
  const std::size_t rows = rows_of(batch);
  const std::size_t inner = shard.intermediate.padded_columns();
  shard.intermediate.multiply(rows, hidden, _hidden, bench.intermediate);
  _kernels.activate(_config.activation, bench.intermediate, rows * inner);
  shard.output.multiply_unbiased(rows, bench.intermediate, inner, out, adds);
}

void NativeEncoder::_add(const TokenBatch& batch, const float* left, std::size_t left_stride,
                         const float* right, std::size_t right_stride, float* out) const {
  _kernels.add({.rows = rows_of(batch),
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
    const Bench& bench = workspace.benches.front();
    float* const hidden = workspace.hidden;
    float* const sum = workspace.sum;
    const std::size_t width = _encoder._hidden;
    const auto normalize = [&](const LayerNorm& norm) {
      norm(_encoder._kernels, rows_of(batch), sum, _encoder._padded, hidden, width);
    };
    for (const Layer& layer : _encoder._weights.layers()) {
      _encoder._add(batch, hidden, width, layer.attention_bias.data(), 0, sum);
      for (const Shard& shard : layer.shards) {
        _encoder._attend(shard, batch, hidden, bench, sum, true);
      }
      normalize(layer.attention_norm);
      _encoder._add(batch, hidden, width, layer.output_bias.data(), 0, sum);
      for (const Shard& shard : layer.shards) {
        _encoder._feed_forward(shard, batch, hidden, bench, sum, true);
      }
      normalize(layer.output_norm);
    }
    _consume(part, hidden);
  }

  void finish(std::size_t) override {}

 private:
  const NativeEncoder& _encoder;
  const std::span<const TokenBatch> _batches;
  const Consumer& _consume;
};

/// Each half layer is a step, each of its shards a part.
class NativeEncoder::BatchTogether final : public SteppedWork {
 public:
  BatchTogether(const NativeEncoder& encoder, const TokenBatch& batch)
      : _encoder(encoder),
        _batch(batch),
        _workspace(encoder._take_workspace(batch, encoder._weights.shards())) {
    _encoder._begin(batch, _workspace);
  }

  const float* states() const { return _workspace.hidden; }

  void run(std::size_t step, std::size_t part) override {
    const Shard& shard = _encoder._weights.layers()[step / 2].shards[part];
    const Bench& bench = _workspace.benches[part];
    float* const out = _workspace.parts[part];
    if (step % 2 == 0) {
      _encoder._attend(shard, _batch, _workspace.hidden, bench, out, false);
    } else {
      _encoder._feed_forward(shard, _batch, _workspace.hidden, bench, out, false);
    }
  }

  void finish(std::size_t step) override {
    const Layer& layer = _encoder._weights.layers()[step / 2];
    const bool is_attention = step % 2 == 0;
    const Matrix& bias = is_attention ? layer.attention_bias : layer.output_bias;
    const LayerNorm& norm = is_attention ? layer.attention_norm : layer.output_norm;
    float* const hidden = _workspace.hidden;
    float* const sum = _workspace.sum;
    _encoder._add(_batch, hidden, _encoder._hidden, bias.data(), 0, sum);
    for (const float* part : _workspace.parts) {
      _encoder._add(_batch, sum, _encoder._padded, part, _encoder._padded, sum);
    }
    norm(_encoder._kernels, rows_of(_batch), sum, _encoder._padded, hidden, _encoder._hidden);
  }

 private:
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
    run_steps(batch, 2 * _weights.layers().size(), _weights.shards(), threads);
    consume(index, batch.states());
  }
}

NativeEncoder::Workspace NativeEncoder::_take_workspace(const TokenBatch& batch,
                                                        std::size_t benches) const {
  const std::size_t rows = rows_of(batch);
  const std::size_t width = _weights.most_heads() * _head_width;
  const std::size_t query_key_value = FloatSlices::size(rows * _kernels.padded(3 * width));
  const std::size_t context = FloatSlices::size(rows * width);
  const std::size_t intermediate = FloatSlices::size(rows * _kernels.padded(_weights.most_inner()));
  const std::size_t scratch =
      FloatSlices::size(_kernels.attention_scratch(longest_text(batch), _head_width));
  const std::size_t sum = FloatSlices::size(rows * _padded);
  const std::size_t size = 2 * sum + benches * (query_key_value + context + intermediate + scratch +
                                                (benches > 1 ? sum : 0));

  Workspace workspace = {.memory = _workspaces.borrow(size),
                         .hidden = nullptr,
                         .sum = nullptr,
                         .parts = {},
                         .benches = {}};
  FloatSlices slices(workspace.memory->data());
  workspace.hidden = slices.take(sum);
  workspace.sum = slices.take(sum);
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
