#include "sentence_transformers/model/encoder_tensors.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "sentence_transformers/tokenizer/json_object.h"

namespace tovana::sentence_transformers {
namespace {

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

/// Fails unless the sizes that config.json claims are those of the weights, naming the member that
/// is at fault.
void check_sizes(const files::ModelDirectory& directory, const TransformerConfig& config,
                 const Checkpoint& checkpoint) {
  const auto refuse = [&](const char* member, std::int64_t claimed, const std::string& found) {
    const JsonObject settings = JsonObject::read_required(directory, "config.json");
    settings.refuse(files::in_quotes(member) +
                    (!settings.find(member) ? " is missing, which means " : " is ") +
                    std::to_string(claimed) + ", and " + found);
  };
  const bool is_bert = config.architecture == Architecture::bert;
  const LayerNames first(config.architecture, 0);
  struct Size {
    const char* member;
    std::int64_t claimed;
    std::string tensor;
    std::size_t axis;
  };
  for (const Size& size : {
           Size{"vocab_size", config.vocabulary, "embeddings.word_embeddings.weight", 0},
           Size{"hidden_size", config.hidden, "embeddings.word_embeddings.weight", 1},
           Size{"max_position_embeddings", config.positions,
                "embeddings.position_embeddings.weight", 0},
           Size{"type_vocab_size", config.token_types, "embeddings.token_type_embeddings.weight",
                0},
           Size{"intermediate_size", config.intermediate, first.intermediate + ".weight", 0},
           Size{"relative_attention_num_buckets", config.distance_buckets,
                "encoder.relative_attention_bias.weight", 0},
           Size{"num_attention_heads", is_bert ? 0 : config.heads,
                "encoder.relative_attention_bias.weight", 1},
       }) {
    if (size.claimed == 0) continue;  // The architecture has no such tensor, whatever lies there.
    // A tensor that is not there, or of another kind, is refused by its name.
    const std::vector<std::int64_t>* const shape = checkpoint.shape(size.tensor);
    if (shape == nullptr || shape->size() != 2 || (*shape)[size.axis] == size.claimed) continue;
    refuse(size.member, size.claimed,
           files::in_quotes(size.tensor) + " has the shape " + shape_text(*shape));
  }

  std::int64_t layers = 0;
  for (; layers <= config.layers; ++layers) {
    const LayerNames names(config.architecture, layers);
    if (!checkpoint.contains(names.output + ".weight")) break;
    if (layers == config.layers) refuse("num_hidden_layers", layers, "the weights have more");
  }
  if (layers == 0) {
    const std::string prefix(prefix_of(config.architecture));
    checkpoint.refuse("no tensor has the name " + files::in_quotes(first.output + ".weight") +
                      ", or " + files::in_quotes(prefix + first.output + ".weight") +
                      ": the names are not those of a " + (is_bert ? "BERT" : "MPNet") + " model");
  }
  if (layers < config.layers) {
    refuse("num_hidden_layers", config.layers, "the weights have " + std::to_string(layers));
  }
}

void expect_tensors(const Checkpoint& checkpoint, const TransformerConfig& config) {
  const std::int64_t hidden = config.hidden;
  const auto expect_table = [&](const std::string& name, std::int64_t rows, std::int64_t columns) {
    checkpoint.expect(name + ".weight", {rows, columns});
  };
  const auto expect_linear = [&](const std::string& name, std::int64_t out, std::int64_t in) {
    expect_table(name, out, in);
    checkpoint.expect(name + ".bias", {out});
  };
  const auto expect_norm = [&](const std::string& name) {
    checkpoint.expect(name + ".weight", {hidden});
    checkpoint.expect(name + ".bias", {hidden});
  };
  expect_table("embeddings.word_embeddings", config.vocabulary, hidden);
  expect_table("embeddings.position_embeddings", config.positions, hidden);
  if (config.architecture == Architecture::bert) {
    expect_table("embeddings.token_type_embeddings", config.token_types, hidden);
  } else {
    expect_table("encoder.relative_attention_bias", config.distance_buckets, config.heads);
  }
  expect_norm("embeddings.LayerNorm");
  for (std::int64_t layer = 0; layer < config.layers; ++layer) {
    const LayerNames names(config.architecture, layer);
    for (const std::string* name :
         {&names.query, &names.key, &names.value, &names.attention_output}) {
      expect_linear(*name, hidden, hidden);
    }
    expect_norm(names.attention_norm);
    expect_linear(names.intermediate, config.intermediate, hidden);
    expect_linear(names.output, hidden, config.intermediate);
    expect_norm(names.output_norm);
  }
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

Checkpoint open_encoder_checkpoint(const files::ModelDirectory& directory,
                                   const TransformerConfig& config) {
  Checkpoint checkpoint(directory, prefix_of(config.architecture));
  check_sizes(directory, config, checkpoint);
  expect_tensors(checkpoint, config);
  return checkpoint;
}

LayerNorm load_norm(const Checkpoint& checkpoint, const std::string& name,
                    const TransformerConfig& config) {
  return {.weight = checkpoint.tensor(name + ".weight"),
          .bias = checkpoint.tensor(name + ".bias"),
          .eps = config.layer_norm_eps};
}

Matrix load_distance_bias(const Checkpoint& checkpoint, const TransformerConfig& config,
                          std::size_t spare) {
  if (config.architecture == Architecture::bert) return {};
  const Matrix table = checkpoint.tensor("encoder.relative_attention_bias.weight");
  const auto heads = static_cast<std::size_t>(config.heads);
  const auto length = static_cast<std::int64_t>(config.max_length);
  const std::size_t distances = 2 * config.max_length - 1;
  Matrix bias(heads, distances + spare);
  float* row = bias.mutable_data();
  for (std::size_t head = 0; head < heads; ++head, row += bias.columns()) {
    for (std::size_t i = 0; i < distances; ++i) {
      const std::int64_t bucket = bucket_of(static_cast<std::int64_t>(i) - (length - 1));
      row[i] = table.row(static_cast<std::size_t>(bucket))[head];
    }
    std::fill_n(row + distances, spare, 0.0F);
  }
  return bias;
}

}  // namespace tovana::sentence_transformers
