#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "sentence_transformers/model/known_members.h"
#include "sentence_transformers/tokenizer/json_object.h"

/// The families of encoders, each in a file of its own: what its config.json calls things, what the
/// tensors are named, and which of the parts that encoders are made of it has.
namespace tovana::sentence_transformers {

struct TransformerConfig;

/// Where a member of config.json stands, and what it is when it is missing.
template <typename Value>
struct Setting {
  std::string_view name;  ///< "" when the file is not asked.
  Value otherwise;
  std::string_view old_name = {};  ///< Read when there is none of the former name.
  std::int64_t least = 1;          ///< Of a count.

  /// The name that the file has; for messages, too.
  std::string_view name_in(const JsonObject& config) const {
    return !old_name.empty() && !config.find(name) && config.find(old_name) ? old_name : name;
  }
};

/// How positions come into the vectors that an encoder begins with.
enum class PositionTable {
  none,
  from_zero,  ///< The first token has row 0.
  /// Padding tokens, which a text may hold, have the row of their own id; others are counted, from
  /// the row behind that on.
  behind_padding,
};

/// Which weights have a bias.
struct Biases {
  bool norms;
  bool query_key_value;
  bool attention_output;
  bool inner;
  bool output;
};

/// What tensors are called, without ".weight" and ".bias". Empty where there is no such tensor.
struct TensorNames {
  std::string_view words;
  std::string_view positions = {};
  std::string_view token_types = {};
  std::string_view embedding_norm;
  std::string_view projection = {};     ///< From the width of the embeddings to that of the layers.
  std::string_view distance_bias = {};  ///< What is added to scores by distance.
  std::string_view final_norm = {};  ///< Behind the layers, of those that begin with their norms.
  std::string_view layers;           ///< Before a layer's number.

  // Of a layer, behind its number. Matrices that lie one below the other in one tensor share a name.
  std::string_view query;
  std::string_view key;
  std::string_view value;
  std::string_view attention_output;
  std::string_view attention_norm;
  std::string_view inner;        ///< What the activation is of.
  std::string_view factor = {};  ///< What the activated numbers are multiplied with.
  std::string_view output;
  std::string_view output_norm;
  /// Of `inner` and `factor` in one tensor, the latter is the upper one.
  bool is_factor_first = false;
};

struct Family {
  std::string_view model_type;  ///< In config.json.
  std::string_view title;       ///< For messages.
  /// What may stand before every tensor's name.
  std::span<const std::string_view> prefixes;
  /// The ways to name tensors; the first is that of messages.
  std::span<const TensorNames> spellings;

  Setting<std::int64_t> vocabulary = {"vocab_size", 30522};
  Setting<std::int64_t> positions = {"max_position_embeddings", 512};
  Setting<std::int64_t> token_types = {"", 0};
  Setting<std::int64_t> hidden = {"hidden_size", 768};
  Setting<std::int64_t> layers = {"num_hidden_layers", 12};
  Setting<std::int64_t> heads = {"num_attention_heads", 12};
  Setting<std::int64_t> intermediate = {"intermediate_size", 3072};
  Setting<std::string_view> activation = {"hidden_act", "gelu"};
  Setting<double> norm_eps = {"layer_norm_eps", 1e-12};
  Setting<std::int64_t> padding_id = {"", 0};  ///< Of `PositionTable::behind_padding`.

  PositionTable position_table = PositionTable::none;
  bool norms_first = false;  ///< Whether half layers begin with their norm, or end with it.
  Biases biases = {.norms = true,
                   .query_key_value = true,
                   .attention_output = true,
                   .inner = true,
                   .output = true};
  /// Members of config.json that ask for something else than all this; null for none.
  const KnownMembers* members = nullptr;
  /// Reads what is the family's own; null for nothing.
  void (*complete)(const JsonObject& config, TransformerConfig& result) = nullptr;

  /// Whether activated numbers are multiplied with factors.
  bool is_gated() const noexcept { return !spellings.front().factor.empty(); }
};

/// The one that config.json asks for. Throws ModelFilesError, naming the file, when there is none.
const Family& family_of(const JsonObject& config);

// Each in the file of its name, but for those that are BERT with other settings.
extern const Family kBert;
extern const Family kCamembert;
extern const Family kDistilBert;
extern const Family kElectra;
extern const Family kGte;
extern const Family kModernBert;
extern const Family kMPNet;
extern const Family kNew;  ///< GTE by the name of its first files.
extern const Family kNomicBert;
extern const Family kRoberta;
extern const Family kXlmRoberta;

}  // namespace tovana::sentence_transformers
