#include "sentence_transformers/model/native_encoder.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include <ATen/Parallel.h>

#include "sentence_transformers/compute/workers.h"

namespace tovana::sentence_transformers {
namespace {

/// Few enough that each still has whole heads and long rows, enough to keep four threads busy.
constexpr std::size_t kMostShards = 4;

/// Larger workspaces are not kept.
constexpr std::size_t kLargestKept = std::size_t{4} << 20U;
constexpr std::size_t kMostKept = 8;

std::size_t threads_here() { return static_cast<std::size_t>(std::max(at::get_num_threads(), 1)); }

std::size_t rows_of(const TokenBatch& batch) { return static_cast<std::size_t>(batch.rows()); }

std::size_t longest_text(const TokenBatch& batch) {
  std::int64_t longest = 0;
  for (const TokenBatch::Group& group : batch.groups()) longest = std::max(longest, group.length);
  return static_cast<std::size_t>(longest);
}

/// Where the part of `index` begins when `count` things are divided into `parts`.
std::size_t share(std::size_t count, std::size_t parts, std::size_t index) {
  return count * index / parts;
}

}  // namespace

struct NativeEncoder::Workspace {
  FloatBlock memory;
  float* hidden;              ///< `[rows x hidden]`
  float* sum;                 ///< `[rows x padded]`
  std::vector<float*> parts;  ///< The same for each shard, when shards work side by side.
  std::vector<Bench> benches;
};

// --- loading -----------------------------------------------------------------------------------

class NativeEncoder::Load final : public SteppedWork {
 public:
  explicit Load(NativeEncoder& encoder) : _encoder(encoder), _size(encoder._layer_size()) {
    const auto layers = static_cast<std::size_t>(encoder._config.layers);
    encoder._memory = FloatBlock(layers * _size);
    encoder._layers.resize(layers);
  }
  void run(std::size_t, std::size_t part) override {
    _encoder._layers[part] = _encoder._load_layer(part, _encoder._memory.data() + part * _size);
  }
  void finish(std::size_t) override {}

 private:
  NativeEncoder& _encoder;
  const std::size_t _size;
};

NativeEncoder::NativeEncoder(Checkpoint checkpoint, const TransformerConfig& config,
                             const Kernels& kernels)
    : _config(config),
      _kernels(kernels),
      _hidden(static_cast<std::size_t>(config.hidden)),
      _padded(kernels.padded(_hidden)),
      _head_width(_hidden / static_cast<std::size_t>(config.heads)),
      _shards(std::min({kMostShards, static_cast<std::size_t>(config.heads),
                        static_cast<std::size_t>(config.intermediate)})),
      _checkpoint(std::move(checkpoint)),
      _embedding(_checkpoint, config),
      _embedding_norm(load_norm(_checkpoint, "embeddings.LayerNorm", config)),
      _distance_bias(
          load_distance_bias(_checkpoint, config, static_cast<std::int64_t>(kernels.panel))) {
  Load load(*this);
  run_steps(load, 1, _layers.size(), threads_here());
}

NativeEncoder::~NativeEncoder() = default;

std::size_t NativeEncoder::_heads_before(std::size_t shard) const {
  return share(static_cast<std::size_t>(_config.heads), _shards, shard);
}

std::size_t NativeEncoder::_inner_before(std::size_t shard) const {
  return share(static_cast<std::size_t>(_config.intermediate), _shards, shard);
}

std::size_t NativeEncoder::_layer_size() const {
  std::size_t size = 0;
  for (std::size_t shard = 0; shard < _shards; ++shard) {
    const std::size_t width = (_heads_before(shard + 1) - _heads_before(shard)) * _head_width;
    const std::size_t inner = _inner_before(shard + 1) - _inner_before(shard);
    size += PackedMatrix::size(_kernels, _hidden, 3 * width) +
            PackedMatrix::size(_kernels, width, _hidden) +
            PackedMatrix::size(_kernels, _hidden, inner) +
            PackedMatrix::size(_kernels, inner, _hidden);
  }
  return size;
}

/// A weight and its bias as a checkpoint has them, `[out x in]` and `[out]`.
struct NativeEncoder::Weights {
  Weights(const Checkpoint& checkpoint, const std::string& name, std::int64_t out, std::int64_t in)
      : weight(checkpoint.tensor(name + ".weight", {out, in})),
        bias(checkpoint.tensor(name + ".bias", {out})) {}

  /// `count` columns of a shard's matrix from this weight's rows, the whole of each.
  void set_from_rows(PackedMatrix& to, std::size_t column, std::size_t row,
                     std::size_t count) const {
    const auto in = static_cast<std::size_t>(weight.size(1));
    to.set_columns(column, count, weight.const_data_ptr<float>() + row * in, in,
                   bias.const_data_ptr<float>() + row);
  }
  /// All columns from a part of this weight's rows, which begins at `from`; without the bias.
  void set_from_columns(PackedMatrix& to, std::size_t from) const {
    to.set_columns(0, static_cast<std::size_t>(weight.size(0)),
                   weight.const_data_ptr<float>() + from, static_cast<std::size_t>(weight.size(1)),
                   nullptr);
  }

  at::Tensor weight;
  at::Tensor bias;
};

NativeEncoder::Layer NativeEncoder::_load_layer(std::size_t index, float* memory) const {
  const LayerNames names(_config.architecture, static_cast<std::int64_t>(index));
  const std::int64_t hidden = _config.hidden;
  const Weights query(_checkpoint, names.query, hidden, hidden);
  const Weights key(_checkpoint, names.key, hidden, hidden);
  const Weights value(_checkpoint, names.value, hidden, hidden);
  const Weights attention_output(_checkpoint, names.attention_output, hidden, hidden);
  const Weights intermediate(_checkpoint, names.intermediate, _config.intermediate, hidden);
  const Weights output(_checkpoint, names.output, hidden, _config.intermediate);

  FloatSlices slices(memory);
  const auto matrix = [&](std::size_t depth, std::size_t columns) {
    return PackedMatrix(_kernels, depth, columns,
                        slices.take(PackedMatrix::size(_kernels, depth, columns)));
  };
  Layer layer = {.shards = {},
                 .attention_bias = attention_output.bias.clone(),
                 .attention_norm = load_norm(_checkpoint, names.attention_norm, _config),
                 .output_bias = output.bias.clone(),
                 .output_norm = load_norm(_checkpoint, names.output_norm, _config)};
  for (std::size_t each = 0; each < _shards; ++each) {
    const std::size_t head = _heads_before(each);
    const std::size_t heads = _heads_before(each + 1) - head;
    const std::size_t width = heads * _head_width;
    const std::size_t first_inner = _inner_before(each);
    const std::size_t inner = _inner_before(each + 1) - first_inner;
    Shard shard = {.first_head = head,
                   .heads = heads,
                   .query_key_value = matrix(_hidden, 3 * width),
                   .attention_output = matrix(width, _hidden),
                   .intermediate = matrix(_hidden, inner),
                   .output = matrix(inner, _hidden)};
    std::size_t column = 0;
    for (const Weights* part : {&query, &key, &value}) {
      part->set_from_rows(shard.query_key_value, column, head * _head_width, width);
      column += width;
    }
    attention_output.set_from_columns(shard.attention_output, head * _head_width);
    intermediate.set_from_rows(shard.intermediate, 0, first_inner, inner);
    output.set_from_columns(shard.output, first_inner);
    layer.shards.push_back(std::move(shard));
  }
  for (const std::string* name : {&names.query, &names.key, &names.value, &names.attention_output,
                                  &names.intermediate, &names.output}) {
    _checkpoint.discard(*name + ".weight");
  }
  return layer;
}

// --- one batch's way through the layers --------------------------------------------------------

void NativeEncoder::_begin(const TokenBatch& batch, const Workspace& workspace) const {
  _embedding(batch, workspace.hidden);
  _normalize(batch, _embedding_norm, workspace.hidden, _hidden, workspace.hidden);
}

void NativeEncoder::_attend(const Shard& shard, const TokenBatch& batch, const float* hidden,
                            const Bench& bench, float* out, bool adds) const {
  const std::size_t rows = rows_of(batch);
  const std::size_t width = shard.heads * _head_width;
  const std::size_t stride = shard.query_key_value.padded_columns();
  shard.query_key_value.multiply(rows, hidden, _hidden, bench.query_key_value);

  std::size_t row = 0;
  for (const TokenBatch::Group& group : batch.groups()) {
    const auto length = static_cast<std::size_t>(group.length);
    for (std::int64_t text = 0; text < group.texts; ++text, row += length) {
      for (std::size_t head = 0; head < shard.heads; ++head) {
        const float* const query = bench.query_key_value + row * stride + head * _head_width;
        const float* distance_bias = nullptr;
        if (_distance_bias.defined()) {
          distance_bias =
              _distance_bias.const_data_ptr<float>() +
              (shard.first_head + head) * static_cast<std::size_t>(_distance_bias.size(1)) +
              _config.max_length - 1;
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

void NativeEncoder::_normalize(const TokenBatch& batch, const LayerNorm& norm, const float* in,
                               std::size_t in_stride, float* out) const {
  _kernels.normalize({.rows = rows_of(batch),
                      .width = _hidden,
                      .in = in,
                      .in_stride = in_stride,
                      .weight = norm.weight.const_data_ptr<float>(),
                      .bias = norm.bias.const_data_ptr<float>(),
                      .eps = static_cast<float>(norm.eps),
                      .out = out,
                      .out_stride = _hidden});
}

// --- how threads share the work ----------------------------------------------------------------

/// Each batch is a part of its own.
class NativeEncoder::BatchesApart final : public SteppedWork {
 public:
  BatchesApart(const NativeEncoder& encoder, std::span<const TokenBatch> batches,
               const Consumer& consume)
      : _encoder(encoder), _batches(batches), _consume(consume) {}

  void run(std::size_t, std::size_t part) override {
    const TokenBatch& batch = _batches[part];
    std::unique_ptr<Workspace> workspace = _encoder._take_workspace(batch, 1);
    _encoder._begin(batch, *workspace);
    const Bench& bench = workspace->benches.front();
    float* const hidden = workspace->hidden;
    float* const sum = workspace->sum;
    const std::size_t stride = _encoder._padded;
    for (const Layer& layer : _encoder._layers) {
      _encoder._add(batch, hidden, _encoder._hidden, layer.attention_bias.const_data_ptr<float>(),
                    0, sum);
      for (const Shard& shard : layer.shards) {
        _encoder._attend(shard, batch, hidden, bench, sum, true);
      }
      _encoder._normalize(batch, layer.attention_norm, sum, stride, hidden);
      _encoder._add(batch, hidden, _encoder._hidden, layer.output_bias.const_data_ptr<float>(), 0,
                    sum);
      for (const Shard& shard : layer.shards) {
        _encoder._feed_forward(shard, batch, hidden, bench, sum, true);
      }
      _encoder._normalize(batch, layer.output_norm, sum, stride, hidden);
    }
    _consume(part, hidden);
    _encoder._give_back(std::move(workspace));
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
        _workspace(encoder._take_workspace(batch, encoder._shards)) {
    _encoder._begin(batch, *_workspace);
  }
  ~BatchTogether() override { _encoder._give_back(std::move(_workspace)); }

  const float* states() const { return _workspace->hidden; }

  void run(std::size_t step, std::size_t part) override {
    const Shard& shard = _encoder._layers[step / 2].shards[part];
    const Bench& bench = _workspace->benches[part];
    float* const out = _workspace->parts[part];
    if (step % 2 == 0) {
      _encoder._attend(shard, _batch, _workspace->hidden, bench, out, false);
    } else {
      _encoder._feed_forward(shard, _batch, _workspace->hidden, bench, out, false);
    }
  }

  void finish(std::size_t step) override {
    const Layer& layer = _encoder._layers[step / 2];
    const bool is_attention = step % 2 == 0;
    const at::Tensor& bias = is_attention ? layer.attention_bias : layer.output_bias;
    float* const sum = _workspace->sum;
    _encoder._add(_batch, _workspace->hidden, _encoder._hidden, bias.const_data_ptr<float>(), 0,
                  sum);
    for (const float* part : _workspace->parts) {
      _encoder._add(_batch, sum, _encoder._padded, part, _encoder._padded, sum);
    }
    _encoder._normalize(_batch, is_attention ? layer.attention_norm : layer.output_norm, sum,
                        _encoder._padded, _workspace->hidden);
  }

 private:
  const NativeEncoder& _encoder;
  const TokenBatch& _batch;
  std::unique_ptr<Workspace> _workspace;
};

void NativeEncoder::operator()(std::span<const TokenBatch> batches, const Consumer& consume) const {
  for (const TokenBatch& batch : batches) _embedding.check(batch);
  const std::size_t threads = threads_here();
  // Batches that would leave most threads with nothing to do at the end are done together.
  const std::size_t rest = batches.size() % threads;
  const std::size_t together = rest < std::min(threads, _shards) ? rest : 0;
  const std::span<const TokenBatch> apart = batches.first(batches.size() - together);
  BatchesApart work(*this, apart, consume);
  run_steps(work, 1, apart.size(), threads);
  for (std::size_t index = apart.size(); index < batches.size(); ++index) {
    BatchTogether batch(*this, batches[index]);
    run_steps(batch, 2 * _layers.size(), _shards, threads);
    consume(index, batch.states());
  }
}

std::unique_ptr<NativeEncoder::Workspace> NativeEncoder::_take_workspace(
    const TokenBatch& batch, std::size_t benches) const {
  const std::size_t rows = rows_of(batch);
  const std::size_t heads = (static_cast<std::size_t>(_config.heads) + _shards - 1) / _shards;
  const std::size_t inner =
      (static_cast<std::size_t>(_config.intermediate) + _shards - 1) / _shards;
  const std::size_t width = heads * _head_width;
  const std::size_t query_key_value = FloatSlices::size(rows * _kernels.padded(3 * width));
  const std::size_t context = FloatSlices::size(rows * width);
  const std::size_t intermediate = FloatSlices::size(rows * _kernels.padded(inner));
  const std::size_t scratch =
      FloatSlices::size(_kernels.attention_scratch(longest_text(batch), _head_width));
  const std::size_t sum = FloatSlices::size(rows * _padded);
  const std::size_t size = 2 * sum + benches * (query_key_value + context + intermediate + scratch +
                                                (benches > 1 ? sum : 0));

  std::unique_ptr<Workspace> workspace;
  {
    const LockGuard guard(_lock);
    const auto found = std::ranges::find_if(
        _workspaces, [size](const auto& each) { return each->memory.size() >= size; });
    if (found != _workspaces.end()) {
      workspace = std::move(*found);
      _workspaces.erase(found);
    }
  }
  if (workspace == nullptr) {
    workspace = std::make_unique<Workspace>();
    workspace->memory = FloatBlock(size);
  }
  FloatSlices slices(workspace->memory.data());
  workspace->hidden = slices.take(sum);
  workspace->sum = slices.take(sum);
  workspace->parts.clear();
  workspace->benches.clear();
  for (std::size_t i = 0; i < benches; ++i) {
    workspace->benches.push_back({.query_key_value = slices.take(query_key_value),
                                  .context = slices.take(context),
                                  .intermediate = slices.take(intermediate),
                                  .scratch = slices.take(scratch)});
    if (benches > 1) workspace->parts.push_back(slices.take(sum));
  }
  return workspace;
}

void NativeEncoder::_give_back(std::unique_ptr<Workspace> workspace) const {
  const LockGuard guard(_lock);
  if (workspace->memory.size() <= kLargestKept && _workspaces.size() < kMostKept) {
    _workspaces.push_back(std::move(workspace));
  }
}

}  // namespace tovana::sentence_transformers
