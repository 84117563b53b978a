#include "sentence_transformers/model/encoder.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>
#include <utility>

#include <ATen/ops/zeros.h>

#include "sentence_transformers/model/native_encoder.h"
#include "sentence_transformers/model/plain_encoder.h"

namespace tovana::sentence_transformers {
namespace {

/// A number of MPNet's code, which does not ask the configuration for it.
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

}  // namespace

LayerNames::LayerNames(Architecture architecture, std::int64_t index) {
  const bool is_bert = architecture == Architecture::bert;
  const std::string layer = "encoder.layer." + std::to_string(index);
  const std::string attention = layer + (is_bert ? ".attention.self." : ".attention.attn.");
  query = attention + (is_bert ? "query" : "q");
  key = attention + (is_bert ? "key" : "k");
  value = attention + (is_bert ? "value" : "v");
  attention_output = is_bert ? layer + ".attention.output.dense" : attention + "o";
  attention_norm = layer + (is_bert ? ".attention.output.LayerNorm" : ".attention.LayerNorm");
  intermediate = layer + ".intermediate.dense";
  output = layer + ".output.dense";
  output_norm = layer + ".output.LayerNorm";
}

LayerNorm load_norm(const Checkpoint& checkpoint, const std::string& name,
                    const TransformerConfig& config) {
  return {.weight = checkpoint.tensor(name + ".weight", {config.hidden}).clone(),
          .bias = checkpoint.tensor(name + ".bias", {config.hidden}).clone(),
          .eps = config.layer_norm_eps};
}

at::Tensor load_distance_bias(const Checkpoint& checkpoint, const TransformerConfig& config,
                              std::int64_t spare) {
  if (config.architecture == Architecture::bert) return {};
  const at::Tensor table =
      checkpoint.tensor("encoder.relative_attention_bias.weight", {kMPNetBuckets, config.heads});
  const auto length = static_cast<std::int64_t>(config.max_length);
  const std::int64_t distances = 2 * length - 1;
  at::Tensor bias = at::zeros({config.heads, distances + spare});
  float* row = bias.mutable_data_ptr<float>();
  const float* const values = table.const_data_ptr<float>();
  for (std::int64_t head = 0; head < config.heads; ++head, row += distances + spare) {
    for (std::int64_t i = 0; i < distances; ++i) {
      row[i] = values[bucket_of(i - (length - 1)) * config.heads + head];
    }
  }
  return bias;
}

std::unique_ptr<const Encoder> load_encoder(const ModelDirectory& directory,
                                            const TransformerConfig& config,
                                            const Kernels* kernels) {
  Checkpoint checkpoint(directory, prefix_of(config.architecture));
  const std::string beyond = LayerNames(config.architecture, config.layers).output + ".weight";
  if (checkpoint.contains(beyond)) {
    checkpoint.refuse("more layers in the weights than the " + std::to_string(config.layers) +
                      " that config.json has in \"num_hidden_layers\"");
  }
  if (kernels == nullptr) {
    return std::make_unique<const PlainEncoder>(std::move(checkpoint), config);
  }
  return std::make_unique<const NativeEncoder>(std::move(checkpoint), config, *kernels);
}

}  // namespace tovana::sentence_transformers
