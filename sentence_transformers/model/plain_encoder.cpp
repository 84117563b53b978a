#include "sentence_transformers/model/plain_encoder.h"

#include <optional>
#include <utility>

#include <ATen/ops/cat.h>
#include <ATen/ops/empty.h>
#include <ATen/ops/linear.h>
#include <ATen/ops/scaled_dot_product_attention.h>
#include <c10/core/InferenceMode.h>

namespace tovana::sentence_transformers {

PlainEncoder::PlainEncoder(Checkpoint checkpoint, const TransformerConfig& config)
    : _config(config),
      _checkpoint(std::move(checkpoint)),
      _embedding(_checkpoint, config),
      _embedding_norm(load_norm(_checkpoint, "embeddings.LayerNorm", config)),
      _distance_bias(load_distance_bias(_checkpoint, config, 0)) {
  for (std::int64_t index = 0; index < config.layers; ++index) {
    _layers.push_back(_load_layer(index));
  }
}

PlainEncoder::Linear PlainEncoder::_load_linear(const std::string& name, std::int64_t out,
                                                std::int64_t in) const {
  return {.weight = _checkpoint.tensor(name + ".weight", {out, in}),
          .bias = _checkpoint.tensor(name + ".bias", {out})};
}

PlainEncoder::Layer PlainEncoder::_load_layer(std::int64_t index) const {
  const LayerNames names(_config.architecture, index);
  const std::int64_t hidden = _config.hidden;
  std::vector<at::Tensor> weights;
  std::vector<at::Tensor> biases;
  for (const std::string* name : {&names.query, &names.key, &names.value}) {
    auto [weight, bias] = _load_linear(*name, hidden, hidden);
    weights.push_back(std::move(weight));
    biases.push_back(std::move(bias));
  }
  return {
      .query_key_value = {.weight = at::cat(weights), .bias = at::cat(biases)},
      .attention_output = _load_linear(names.attention_output, hidden, hidden),
      .attention_norm = load_norm(_checkpoint, names.attention_norm, _config),
      .intermediate = _load_linear(names.intermediate, _config.intermediate, hidden),
      .output = _load_linear(names.output, hidden, _config.intermediate),
      .output_norm = load_norm(_checkpoint, names.output_norm, _config),
  };
}

void PlainEncoder::operator()(std::span<const TokenBatch> batches, const Consumer& consume) const {
  const c10::InferenceMode inference;  // A setting of this thread's.
  for (std::size_t index = 0; index < batches.size(); ++index) {
    const at::Tensor states = _encode(batches[index]);
    consume(index, states.const_data_ptr<float>());
  }
}

at::Tensor PlainEncoder::_encode(const TokenBatch& batch) const {
  _embedding.check(batch);
  at::Tensor hidden = at::empty({batch.rows(), _config.hidden});
  _embedding(batch, hidden.mutable_data_ptr<float>());
  std::vector<at::Tensor> biases;
  if (_distance_bias.defined()) {
    for (const TokenBatch::Group& group : batch.groups()) {
      biases.push_back(_relative_bias(group.length));
    }
  }
  hidden = _embedding_norm(hidden);
  for (const Layer& layer : _layers) {
    const at::Tensor context = _attend(layer.query_key_value(hidden), batch, biases);
    hidden = layer.attention_norm(layer.attention_output(context).add_(hidden));
    const at::Tensor inner = activate(_config.activation, layer.intermediate(hidden));
    hidden = layer.output_norm(layer.output(inner).add_(hidden));
  }
  return hidden;
}

at::Tensor PlainEncoder::Linear::operator()(const at::Tensor& rows) const {
  return at::linear(rows, weight, bias);
}

at::Tensor PlainEncoder::_relative_bias(std::int64_t length) const {
  at::Tensor bias = at::empty({1, _config.heads, length, length});
  float* out = bias.mutable_data_ptr<float>();
  const std::int64_t zero = static_cast<std::int64_t>(_config.max_length) - 1;
  for (std::int64_t head = 0; head < _config.heads; ++head) {
    const float* const by_distance =
        _distance_bias.const_data_ptr<float>() + head * _distance_bias.size(1) + zero;
    for (std::int64_t query = 0; query < length; ++query) {
      for (std::int64_t key = 0; key < length; ++key) *out++ = by_distance[key - query];
    }
  }
  return bias;
}

at::Tensor PlainEncoder::_attend(const at::Tensor& query_key_value, const TokenBatch& batch,
                                 const std::vector<at::Tensor>& biases) const {
  const std::int64_t heads = _config.heads;
  const std::int64_t width = _config.hidden / heads;
  at::Tensor context = at::empty({batch.rows(), _config.hidden});
  for (std::size_t index = 0; index < batch.groups().size(); ++index) {
    const TokenBatch::Group& group = batch.groups()[index];
    const std::int64_t rows = group.texts * group.length;
    const at::Tensor parts = query_key_value.narrow(0, group.first_row, rows)
                                 .view({group.texts, group.length, 3, heads, width})
                                 .permute({2, 0, 3, 1, 4});
    const auto bias = biases.empty() ? std::nullopt : std::optional(biases[index]);
    context.narrow(0, group.first_row, rows)
        .view({group.texts, group.length, heads, width})
        .copy_(
            at::scaled_dot_product_attention(parts[0], parts[1], parts[2], bias).transpose(1, 2));
  }
  return context;
}

}  // namespace tovana::sentence_transformers
