#include "sentence_transformers/model/encoder.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <span>

#include <ATen/ops/cat.h>
#include <ATen/ops/empty.h>
#include <ATen/ops/scaled_dot_product_attention.h>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

/// The numbers of MPNet's code, which does not ask the configuration for them.
constexpr std::int32_t kMPNetPaddingId = 1;
constexpr std::int64_t kMPNetBuckets = 32;

/// Distances from the first number on share a bucket; 8 and up grow by powers of 2^(1/2), and so
/// do their buckets.
constexpr std::array<std::int64_t, 16> kBucketStarts = {0, 1,  2,  3,  4,  5,  6,  7,
                                                        8, 12, 16, 23, 32, 46, 64, 91};

std::int64_t bucket_of(std::int64_t distance) {
  const auto* const next = std::ranges::upper_bound(kBucketStarts, std::abs(distance));
  const std::int64_t bucket = next - kBucketStarts.begin() - 1;
  return distance > 0 ? bucket + kMPNetBuckets / 2 : bucket;
}

std::string_view prefix_of(Architecture architecture) {
  return architecture == Architecture::bert ? "bert." : "mpnet.";
}

std::string layer_name(std::int64_t index) { return "encoder.layer." + std::to_string(index); }

/// A matrix for a batch, to be filled: only the rows behind the last token's have a value, 0.
at::Tensor rows_for(const TokenBatch& batch, std::int64_t width) {
  at::Tensor matrix = at::empty({batch.padded_rows(), width});
  matrix.narrow(0, batch.rows(), batch.padded_rows() - batch.rows()).zero_();
  return matrix;
}

const float* row_of(const at::Tensor& table, std::int64_t row) {
  return table.const_data_ptr<float>() + row * table.size(1);
}

}  // namespace

Encoder::Encoder(const ModelDirectory& directory, const TransformerConfig& config,
                 LinearKernel kernel)
    : _config(config),
      _checkpoint(directory, prefix_of(config.architecture)),
      _words(_checkpoint.tensor("embeddings.word_embeddings.weight",
                                {config.vocabulary, config.hidden})),
      _positions(_checkpoint.tensor("embeddings.position_embeddings.weight",
                                    {config.positions, config.hidden})),
      _embedding_norm(_load_norm("embeddings.LayerNorm")) {
  if (config.architecture == Architecture::bert) {
    _token_type =
        _checkpoint
            .tensor("embeddings.token_type_embeddings.weight", {config.token_types, config.hidden})
            .select(0, 0);
  } else {
    _distance_bias =
        _checkpoint.tensor("encoder.relative_attention_bias.weight", {kMPNetBuckets, config.heads});
  }
  for (std::int64_t index = 0; index < config.layers; ++index) {
    _layers.push_back(_load_layer(index, kernel));
  }
  if (_checkpoint.contains(layer_name(config.layers) + ".output.dense.weight")) {
    _checkpoint.refuse("more layers in the weights than the " + std::to_string(config.layers) +
                       " that config.json has in \"num_hidden_layers\"");
  }
}

Linear Encoder::_load_linear(const std::string& name, std::int64_t out, std::int64_t in,
                             Activation activation, LinearKernel kernel) const {
  return {_checkpoint.tensor(name + ".weight", {out, in}),
          _checkpoint.tensor(name + ".bias", {out}), activation, kernel};
}

LayerNorm Encoder::_load_norm(const std::string& name) const {
  return {.weight = _checkpoint.tensor(name + ".weight", {_config.hidden}).clone(),
          .bias = _checkpoint.tensor(name + ".bias", {_config.hidden}).clone(),
          .eps = _config.layer_norm_eps};
}

Encoder::Layer Encoder::_load_layer(std::int64_t index, LinearKernel kernel) const {
  const bool is_bert = _config.architecture == Architecture::bert;
  const std::string layer = layer_name(index);
  const std::string attention = layer + (is_bert ? ".attention.self." : ".attention.attn.");
  const std::int64_t hidden = _config.hidden;

  std::vector<at::Tensor> weights;
  std::vector<at::Tensor> biases;
  for (const char* name :
       is_bert ? std::array{"query", "key", "value"} : std::array{"q", "k", "v"}) {
    weights.push_back(_checkpoint.tensor(attention + name + ".weight", {hidden, hidden}));
    biases.push_back(_checkpoint.tensor(attention + name + ".bias", {hidden}));
  }
  return {
      .query_key_value = {at::cat(weights), at::cat(biases), Activation::identity, kernel},
      .attention_output =
          _load_linear(is_bert ? layer + ".attention.output.dense" : attention + "o", hidden,
                       hidden, Activation::identity, kernel),
      .attention_norm =
          _load_norm(layer + (is_bert ? ".attention.output.LayerNorm" : ".attention.LayerNorm")),
      .intermediate = _load_linear(layer + ".intermediate.dense", _config.intermediate, hidden,
                                   _config.activation, kernel),
      .output = _load_linear(layer + ".output.dense", hidden, _config.intermediate,
                             Activation::identity, kernel),
      .output_norm = _load_norm(layer + ".output.LayerNorm"),
  };
}

at::Tensor Encoder::operator()(const TokenBatch& batch) const {
  std::vector<at::Tensor> biases;
  if (_distance_bias.defined()) {
    for (const TokenBatch::Group& group : batch.groups()) {
      biases.push_back(_relative_bias(group.length));
    }
  }
  at::Tensor hidden = _embedding_norm(_embed(batch));
  for (const Layer& layer : _layers) {
    const at::Tensor context = _attend(layer.query_key_value(hidden), batch, biases);
    hidden = layer.attention_norm(layer.attention_output(context).add_(hidden));
    hidden = layer.output_norm(layer.output(layer.intermediate(hidden)).add_(hidden));
  }
  return hidden.narrow(0, 0, batch.rows());
}

at::Tensor Encoder::_embed(const TokenBatch& batch) const {
  const bool is_bert = _config.architecture == Architecture::bert;
  const auto width = static_cast<std::size_t>(_config.hidden);
  const float* const type = is_bert ? _token_type.const_data_ptr<float>() : nullptr;
  at::Tensor result = rows_for(batch, _config.hidden);
  float* out = result.mutable_data_ptr<float>();
  auto id = batch.ids().begin();
  for (const TokenBatch::Group& group : batch.groups()) {
    for (std::int64_t text = 0; text < group.texts; ++text) {
      std::int64_t counted = 0;
      for (std::int64_t index = 0; index < group.length; ++index, ++id, out += width) {
        if (*id < 0 || *id >= _config.vocabulary) {
          throw RuntimeError("the tokenizer gave the id " + std::to_string(*id) +
                             ", and the model has " + std::to_string(_config.vocabulary) +
                             " words");
        }
        const bool counts = is_bert || *id != kMPNetPaddingId;
        const std::int64_t position =
            is_bert ? index : (counts ? kMPNetPaddingId + ++counted : kMPNetPaddingId);
        const float* const word = row_of(_words, *id);
        const float* const place = row_of(_positions, position);
        // The sums in the order in which the models were trained: the last digits depend on it.
        for (std::size_t i = 0; i < width; ++i) {
          out[i] = (is_bert ? word[i] + type[i] : word[i]) + place[i];
        }
      }
    }
  }
  return result;
}

at::Tensor Encoder::_relative_bias(std::int64_t length) const {
  at::Tensor bias = at::empty({1, _config.heads, length, length});
  float* out = bias.mutable_data_ptr<float>();
  for (std::int64_t head = 0; head < _config.heads; ++head) {
    for (std::int64_t query = 0; query < length; ++query) {
      for (std::int64_t key = 0; key < length; ++key) {
        *out++ = row_of(_distance_bias, bucket_of(key - query))[head];
      }
    }
  }
  return bias;
}

at::Tensor Encoder::_attend(const at::Tensor& query_key_value, const TokenBatch& batch,
                            const std::vector<at::Tensor>& biases) const {
  const std::int64_t heads = _config.heads;
  const std::int64_t width = _config.hidden / heads;
  at::Tensor context = rows_for(batch, _config.hidden);
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
