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

const TensorNames& spelling_of(const Checkpoint& checkpoint, const Family& family) {
  for (const TensorNames& names : family.spellings) {
    if (checkpoint.contains(std::string(names.layers) + "0" + std::string(names.output) +
                            ".weight")) {
      return names;
    }
  }
  return family.spellings.front();
}

/// Fails unless the sizes that config.json claims are those of the weights, naming the member that
/// is at fault.
void check_sizes(const files::ModelDirectory& directory, const TransformerConfig& config,
                 const Checkpoint& checkpoint) {
  const Family& family = *config.family;
  const EncoderNames names(checkpoint, config);
  const JsonObject settings = JsonObject::read_required(directory, "config.json");
  const auto refuse = [&](std::string_view member, std::int64_t claimed, const std::string& found) {
    settings.refuse(files::in_quotes(member) +
                    (!settings.find(member) ? " is missing, which means " : " is ") +
                    std::to_string(claimed) + ", and " + found);
  };
  const auto member = [&](const Setting<std::int64_t>& setting) {
    return setting.name_in(settings);
  };
  struct Size {
    std::string_view member;
    std::int64_t claimed;
    std::string tensor;
    std::size_t axis;
  };
  const bool is_projected = config.embedding_width != config.hidden;
  for (const Size& size : {
           Size{member(family.vocabulary), config.vocabulary, std::string(names->words), 0},
           Size{is_projected ? "embedding_size" : member(family.hidden), config.embedding_width,
                std::string(names->words), 1},
           Size{member(family.positions), config.positions, std::string(names->positions), 0},
           Size{member(family.token_types), config.token_types, std::string(names->token_types), 0},
           Size{member(family.intermediate), config.intermediate,
                // Of one that it shares, it has not all rows.
                names->inner == names->factor ? "" : names.in_layer(0, names->inner), 0},
           Size{"relative_attention_num_buckets", config.distance_buckets,
                std::string(names->distance_bias), 0},
           Size{member(family.heads), config.heads, std::string(names->distance_bias), 1},
       }) {
    // A tensor that is not there, or of another kind, is refused by its name.
    const std::vector<std::int64_t>* const shape = checkpoint.shape(size.tensor + ".weight");
    if (size.claimed == 0 || shape == nullptr || shape->size() != 2 ||
        (*shape)[size.axis] == size.claimed) {
      continue;
    }
    refuse(size.member, size.claimed,
           files::in_quotes(size.tensor + ".weight") + " has the shape " + shape_text(*shape));
  }

  std::int64_t layers = 0;
  for (; layers <= config.layers; ++layers) {
    if (!checkpoint.contains(names.in_layer(layers, names->output) + ".weight")) break;
    if (layers == config.layers) refuse(member(family.layers), layers, "the weights have more");
  }
  if (layers == 0) {
    const std::string first = names.in_layer(0, names->output) + ".weight";
    checkpoint.refuse("no tensor has the name " + files::in_quotes(first) + ", or " +
                      files::in_quotes(std::string(family.prefixes.front()) + first) +
                      ": the names are not those of a model of the " + std::string(family.title) +
                      " family");
  }
  // Of a layer with others behind it the tensor alone is missing, and refused by its name.
  const bool has_next = checkpoint.contains(names.in_layer(layers + 1, names->output) + ".weight");
  if (layers < config.layers && !has_next) {
    refuse(member(family.layers), config.layers, "the weights have " + std::to_string(layers));
  }
}

/// Asks a checkpoint for what an encoder has.
class Expected {
 public:
  Expected(const Checkpoint& checkpoint, const TransformerConfig& config)
      : _checkpoint(checkpoint), _config(config) {}

  void table(std::string_view name, std::int64_t rows, std::int64_t columns) const {
    _checkpoint.expect(std::string(name) + ".weight", {rows, columns});
  }

  void norm(std::string_view name, std::int64_t width) const {
    _checkpoint.expect(std::string(name) + ".weight", {width});
    if (_config.biases.norms) _checkpoint.expect(std::string(name) + ".bias", {width});
  }

  /// Matrices, each with so many rows, of which several may be in one tensor.
  void linears(std::initializer_list<const StoredLinear*> linears, std::int64_t columns) const {
    for (const StoredLinear* linear : linears) {
      std::size_t rows = 0;
      for (const StoredLinear* other : linears) {
        if (other->name == linear->name) rows += other->rows.count;
      }
      if (linear->rows.count == 0) continue;
      table(linear->name, static_cast<std::int64_t>(rows), columns);
      if (linear->has_bias) {
        _checkpoint.expect(linear->name + ".bias", {static_cast<std::int64_t>(rows)});
      }
    }
  }

 private:
  const Checkpoint& _checkpoint;
  const TransformerConfig& _config;
};

void expect_tensors(const Checkpoint& checkpoint, const TransformerConfig& config) {
  const EncoderNames names(checkpoint, config);
  const Expected expected(checkpoint, config);
  const std::int64_t width = config.embedding_width;
  expected.table(names->words, config.vocabulary, width);
  if (!names->positions.empty()) expected.table(names->positions, config.positions, width);
  if (config.token_types > 0) expected.table(names->token_types, config.token_types, width);
  if (!names->distance_bias.empty()) {
    expected.table(names->distance_bias, config.distance_buckets, config.heads);
  }
  expected.norm(names->embedding_norm, width);
  if (width != config.hidden) {
    expected.table(names->projection, config.hidden, width);
    checkpoint.expect(std::string(names->projection) + ".bias", {config.hidden});
  }
  for (std::int64_t index = 0; index < config.layers; ++index) {
    const LayerTensors layer = names.layer(index);
    expected.linears({&layer.query, &layer.key, &layer.value}, config.hidden);
    expected.linears({&layer.attention_output}, config.attention_width());
    expected.linears({&layer.inner, &layer.factor}, config.hidden);
    expected.linears({&layer.output}, config.intermediate);
    expected.norm(layer.attention_norm, config.hidden);
    expected.norm(layer.output_norm, config.hidden);
  }
}

}  // namespace

EncoderNames::EncoderNames(const Checkpoint& checkpoint, const TransformerConfig& config)
    : _config(config), _names(spelling_of(checkpoint, *config.family)) {}

std::string EncoderNames::in_layer(std::int64_t index, std::string_view name) const {
  return std::string(_names.layers).append(std::to_string(index)).append(name);
}

LayerTensors EncoderNames::layer(std::int64_t index) const {
  const auto width = static_cast<std::size_t>(_config.attention_width());
  const auto hidden = static_cast<std::size_t>(_config.hidden);
  const auto inner = static_cast<std::size_t>(_config.intermediate);
  const auto linear = [&](std::string_view name, std::size_t place, std::size_t rows, bool biased) {
    return StoredLinear{.name = in_layer(index, name),
                        .rows = {.first = place * rows, .count = rows},
                        .has_bias = biased};
  };
  const Biases& biases = _config.biases;
  const bool is_stacked = _names.query == _names.key;
  const bool shares = _names.inner == _names.factor;
  const bool norms_first = _config.family->norms_first;
  std::string last_norm = in_layer(index, _names.output_norm);
  if (norms_first) {
    last_norm = index + 1 < _config.layers ? in_layer(index + 1, _names.attention_norm)
                                           : std::string(_names.final_norm);
  }
  return {
      .query = linear(_names.query, 0, width, biases.query_key_value),
      .key = linear(_names.key, is_stacked ? 1 : 0, width, biases.query_key_value),
      .value = linear(_names.value, is_stacked ? 2 : 0, width, biases.query_key_value),
      .attention_output = linear(_names.attention_output, 0, hidden, biases.attention_output),
      .inner = linear(_names.inner, shares && _names.is_factor_first ? 1 : 0, inner, biases.inner),
      .factor = linear(_names.factor, shares && !_names.is_factor_first ? 1 : 0,
                       _config.family->is_gated() ? inner : 0, biases.inner),
      .output = linear(_names.output, 0, hidden, biases.output),
      .attention_norm = in_layer(index, norms_first ? _names.output_norm : _names.attention_norm),
      .output_norm = std::move(last_norm),
  };
}

Checkpoint open_encoder_checkpoint(const files::ModelDirectory& directory,
                                   const TransformerConfig& config) {
  Checkpoint checkpoint(directory, config.family->prefixes);
  check_sizes(directory, config, checkpoint);
  expect_tensors(checkpoint, config);
  return checkpoint;
}

LayerNorm load_norm(const Checkpoint& checkpoint, std::string_view name,
                    const TransformerConfig& config) {
  Matrix weight = checkpoint.tensor(std::string(name) + ".weight");
  Matrix bias = load_bias(checkpoint, {.name = std::string(name),
                                       .rows = {.first = 0, .count = weight.columns()},
                                       .has_bias = config.biases.norms});
  return {.weight = std::move(weight), .bias = std::move(bias), .eps = config.norm_eps};
}

Matrix load_bias(const Checkpoint& checkpoint, const StoredLinear& linear) {
  Matrix bias(1, linear.rows.count);
  if (linear.has_bias) {
    const Matrix whole = checkpoint.tensor(linear.name + ".bias");
    std::copy_n(whole.data() + linear.rows.first, linear.rows.count, bias.mutable_data());
  } else {
    std::fill_n(bias.mutable_data(), linear.rows.count, 0.0F);
  }
  return bias;
}

Matrix load_distance_bias(const Checkpoint& checkpoint, const TransformerConfig& config,
                          std::size_t spare) {
  const EncoderNames names(checkpoint, config);
  if (names->distance_bias.empty()) return {};
  const Matrix table = checkpoint.tensor(std::string(names->distance_bias) + ".weight");
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
