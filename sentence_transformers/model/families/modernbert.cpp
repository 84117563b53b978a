#include <array>
#include <optional>
#include <string>

#include "sentence_transformers/model/families/family.h"
#include "sentence_transformers/model/families/rotary_positions.h"
#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::array kSpellings = {TensorNames{
    .words = "embeddings.tok_embeddings",
    .embedding_norm = "embeddings.norm",
    .final_norm = "final_norm",
    .layers = "layers.",
    .query = ".attn.Wqkv",
    .key = ".attn.Wqkv",
    .value = ".attn.Wqkv",
    .attention_output = ".attn.Wo",
    .attention_norm = ".attn_norm",
    .inner = ".mlp.Wi",
    .factor = ".mlp.Wi",
    .output = ".mlp.Wo",
    .output_norm = ".mlp_norm",
}};
constexpr std::array<std::string_view, 1> kPrefixes = {"model."};

constexpr std::array kOwnMembers = std::to_array<KnownMember>({
    {"rope_scaling", "null"},
});
constexpr KnownMembers kMembers = {.members = kOwnMembers, .is_complete = false};

constexpr std::string_view kFull = "full_attention";
constexpr std::string_view kSliding = "sliding_attention";

/// Of each layer, whether it looks at a window alone.
std::vector<bool> sliding_layers(const JsonObject& config, std::int64_t layers) {
  std::vector<bool> result;
  const auto types = config.array("layer_types");
  if (!types) {
    const std::int64_t period = config.count("global_attn_every_n_layers").value_or(3);
    for (std::int64_t layer = 0; layer < layers; ++layer) result.push_back(layer % period != 0);
    return result;
  }
  for (const auto type : *types) {
    const std::string_view name = config.text_of(type, "layer_types");
    if (name != kFull && name != kSliding) {
      config.refuse("\"layer_types\" holds " + files::in_quotes(name) +
                    "; supported: " + std::string(kFull) + ", " + std::string(kSliding));
    }
    result.push_back(name == kSliding);
  }
  if (result.size() != static_cast<std::size_t>(layers)) {
    config.refuse("\"layer_types\" are " + std::to_string(result.size()) +
                  ", and \"num_hidden_layers\" is " + std::to_string(layers));
  }
  return result;
}

void complete(const JsonObject& config, TransformerConfig& result) {
  const auto flag = [&](std::string_view name) { return config.flag(name).value_or(false); };
  result.biases = {.norms = flag("norm_bias"),
                   .query_key_value = flag("attention_bias"),
                   .attention_output = flag("attention_bias"),
                   .inner = flag("mlp_bias"),
                   .output = flag("mlp_bias")};
  const auto rotary = config.object("rope_parameters");
  const auto rotary_of = [&](std::string_view kind, const char* old_name, double theta) {
    return read_rotary(config, rotary ? rotary->object(kind) : std::nullopt,
                       config.number(old_name).value_or(theta));
  };
  // Half the window, which replaces the whole one in the models' own library.
  const auto half = config.count("sliding_window", 0);
  const auto reach =
      static_cast<std::size_t>(half.value_or(config.count("local_attention", 0).value_or(128) / 2));
  result.attention = {
      {.rotary = rotary_of(kFull, "global_rope_theta", 160000)},
      {.before = reach, .behind = reach, .rotary = rotary_of(kSliding, "local_rope_theta", 10000)},
  };
  for (const bool slides : sliding_layers(config, result.layers)) {
    result.attention_of_layer.push_back(slides ? 1 : 0);
  }
}

}  // namespace

constinit const Family kModernBert = {.model_type = "modernbert",
                                      .title = "ModernBERT",
                                      .prefixes = kPrefixes,
                                      .spellings = kSpellings,
                                      .vocabulary = {"vocab_size", 50368},
                                      .positions = {"max_position_embeddings", 8192},
                                      .layers = {"num_hidden_layers", 22},
                                      .intermediate = {"intermediate_size", 1152},
                                      .activation = {"hidden_activation", "gelu"},
                                      .norm_eps = {"norm_eps", 1e-5},
                                      .norms_first = true,
                                      .members = &kMembers,
                                      .complete = complete};

}  // namespace tovana::sentence_transformers
