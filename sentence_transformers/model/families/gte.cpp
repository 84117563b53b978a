#include <array>

#include "sentence_transformers/model/families/family.h"
#include "sentence_transformers/model/families/rotary_positions.h"
#include "sentence_transformers/model/families/separate_names.h"
#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {
namespace {

constexpr TensorNames kPublicNames = {
    .words = "embeddings.word_embeddings",
    .token_types = "embeddings.token_type_embeddings",
    .embedding_norm = "embeddings.LayerNorm",
    .layers = "encoder.layer.",
    .query = ".attention.qkv_proj",
    .key = ".attention.qkv_proj",
    .value = ".attention.qkv_proj",
    .attention_output = ".attention.o_proj",
    .attention_norm = ".attn_ln",
    .inner = ".mlp.up_gate_proj",
    .factor = ".mlp.up_gate_proj",
    .output = ".mlp.down_proj",
    .output_norm = ".mlp_ln",
    .is_factor_first = true,
};
constexpr std::array kSpellings = {kPublicNames, kSeparateNames};
constexpr std::array<std::string_view, 2> kPrefixes = {"gte.", "new."};

// In the words of its first files, what today's code has no settings for.
constexpr std::array kOwnMembers = std::to_array<KnownMember>({
    {"layer_norm_type", R"("layer_norm")"},
    {"logn_attention_clip1", "false"},
    {"logn_attention_scale", "false"},
    {"position_embedding_type", R"("rope")"},
});
constexpr KnownMembers kMembers = {.members = kOwnMembers, .is_complete = false};

void complete(const JsonObject& config, TransformerConfig& result) {
  result.attention = {{.rotary = read_rotary(config, 160000)}};
}

constexpr Family gte(std::string_view model_type) {
  return {.model_type = model_type,
          .title = "GTE",
          .prefixes = kPrefixes,
          .spellings = kSpellings,
          .vocabulary = {"vocab_size", 250048},
          .positions = {"max_position_embeddings", 8192},
          .token_types = {"type_vocab_size", 1, {}, 0},
          .biases = {.norms = true,
                     .query_key_value = true,
                     .attention_output = true,
                     .inner = false,
                     .output = true},
          .members = &kMembers,
          .complete = complete};
}

}  // namespace

constinit const Family kGte = gte("gte");
constinit const Family kNew = gte("new");

}  // namespace tovana::sentence_transformers
