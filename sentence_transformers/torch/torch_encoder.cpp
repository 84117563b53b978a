#include "sentence_transformers/torch/torch_encoder.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <ATen/ops/cat.h>
#include <ATen/ops/empty.h>
#include <ATen/ops/from_blob.h>
#include <ATen/ops/layer_norm.h>
#include <ATen/ops/linear.h>
#include <ATen/ops/scaled_dot_product_attention.h>
#include <c10/core/InferenceMode.h>

#include "sentence_transformers/model/encoder_tensors.h"
#include "sentence_transformers/torch/activation.h"

namespace tovana::sentence_transformers {
namespace {

/// A tensor that keeps the matrix whose numbers it has.
at::Tensor tensor_of(Matrix matrix, at::IntArrayRef shape) {
  auto owned = std::make_unique<Matrix>(std::move(matrix));
  float* const numbers = owned->mutable_data();
  at::Tensor tensor = at::from_blob(
      numbers, shape, [kept = owned.get()](void*) { delete kept; }, at::kFloat);
  static_cast<void>(owned.release());
  return tensor;
}

at::Tensor vector_of(Matrix matrix) {
  const auto size = static_cast<std::int64_t>(matrix.size());
  return tensor_of(std::move(matrix), {size});
}

at::Tensor load_matrix(const Checkpoint& checkpoint, const std::string& name) {
  Matrix matrix = checkpoint.tensor(name);
  const auto rows = static_cast<std::int64_t>(matrix.rows());
  const auto columns = static_cast<std::int64_t>(matrix.columns());
  return tensor_of(std::move(matrix), {rows, columns});
}

}  // namespace

void TorchEncoder::check(const Checkpoint& checkpoint, const TransformerConfig& config) {
  if (config.family == &kBert || config.family == &kMPNet) return;
  checkpoint.refuse("an encoder of the " + std::string(config.family->title) +
                    " family, which this model library, on libtorch, does not run: "
                    "supported are BERT and MPNet");
}

TorchEncoder::TorchEncoder(const Checkpoint& checkpoint, const TransformerConfig& config,
                           std::size_t threads)
    : _config(config),
      _embedding(checkpoint, config, threads),
      _embedding_norm(_load_norm(checkpoint, EncoderNames(checkpoint, config)->embedding_norm)),
      _distance_bias(load_distance_bias(checkpoint, config, 0)) {
  const c10::InferenceMode inference;  // A setting of this thread's.
  const EncoderNames names(checkpoint, config);
  for (std::int64_t index = 0; index < config.layers; ++index) {
    _layers.push_back(_load_layer(checkpoint, names.layer(index)));
  }
}

TorchEncoder::Linear TorchEncoder::_load_linear(const Checkpoint& checkpoint,
                                                const StoredLinear& linear) {
  return {.weight = load_matrix(checkpoint, linear.name + ".weight"),
          .bias = vector_of(load_bias(checkpoint, linear))};
}

TorchEncoder::Norm TorchEncoder::_load_norm(const Checkpoint& checkpoint,
                                            std::string_view name) const {
  LayerNorm norm = load_norm(checkpoint, name, _config);
  return {.weight = vector_of(std::move(norm.weight)),
          .bias = vector_of(std::move(norm.bias)),
          .eps = norm.eps};
}

TorchEncoder::Layer TorchEncoder::_load_layer(const Checkpoint& checkpoint,
                                              const LayerTensors& tensors) const {
  std::vector<at::Tensor> weights;
  std::vector<at::Tensor> biases;
  for (const StoredLinear* part : {&tensors.query, &tensors.key, &tensors.value}) {
    Linear linear = _load_linear(checkpoint, *part);
    weights.push_back(std::move(linear.weight));
    biases.push_back(std::move(linear.bias));
  }
  return {
      .query_key_value = {.weight = at::cat(weights), .bias = at::cat(biases)},
      .attention_output = _load_linear(checkpoint, tensors.attention_output),
      .attention_norm = _load_norm(checkpoint, tensors.attention_norm),
      .intermediate = _load_linear(checkpoint, tensors.inner),
      .output = _load_linear(checkpoint, tensors.output),
      .output_norm = _load_norm(checkpoint, tensors.output_norm),
  };
}

void TorchEncoder::operator()(std::span<const TokenBatch> batches, const Consumer& consume) const {
  const c10::InferenceMode inference;
  for (std::size_t index = 0; index < batches.size(); ++index) {
    const at::Tensor states = _encode(batches[index]);
    consume(index, states.const_data_ptr<float>());
  }
}

at::Tensor TorchEncoder::_encode(const TokenBatch& batch) const {
  _embedding.check(batch);
  at::Tensor hidden = at::empty({batch.rows(), _config.hidden});
  _embedding(batch, hidden.mutable_data_ptr<float>());
  std::vector<at::Tensor> biases;
  if (!_distance_bias.empty()) {
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

at::Tensor TorchEncoder::Linear::operator()(const at::Tensor& rows) const {
  return at::linear(rows, weight, bias);
}

at::Tensor TorchEncoder::Norm::operator()(const at::Tensor& rows) const {
  return at::layer_norm(rows, weight.sizes(), weight, bias, eps);
}

at::Tensor TorchEncoder::_relative_bias(std::int64_t length) const {
  at::Tensor bias = at::empty({1, _config.heads, length, length});
  float* out = bias.mutable_data_ptr<float>();
  const auto zero = static_cast<std::int64_t>(_config.max_length) - 1;
  for (std::size_t head = 0; head < _distance_bias.rows(); ++head) {
    const float* const by_distance = _distance_bias.row(head).data() + zero;
    for (std::int64_t query = 0; query < length; ++query) {
      for (std::int64_t key = 0; key < length; ++key) *out++ = by_distance[key - query];
    }
  }
  return bias;
}

at::Tensor TorchEncoder::_attend(const at::Tensor& query_key_value, const TokenBatch& batch,
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
