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
    .embedding_norm = "emb_ln",
    .layers = "encoder.layers.",
    .query = ".attn.Wqkv",
    .key = ".attn.Wqkv",
    .value = ".attn.Wqkv",
    .attention_output = ".attn.out_proj",
    .attention_norm = ".norm1",
    .inner = ".mlp.fc12",
    .factor = ".mlp.fc11",
    .output = ".mlp.fc2",
    .output_norm = ".norm2",
};
constexpr std::array kSpellings = {kPublicNames, kSeparateNames};
constexpr std::array<std::string_view, 1> kPrefixes = {"nomic_bert."};

// In the words of its first files, what today's code has no settings for.
constexpr std::array kOwnMembers = std::to_array<KnownMember>({
    {"activation_function", R"("swiglu")"},
    {"causal", "false"},
    {"mlp_fc1_bias", "false"},
    {"mlp_fc2_bias", "false"},
    {"moe_every_n_layers", "0"},
    {"parallel_block", "false"},
    {"prenorm", "false"},
    {"qkv_proj_bias", "false"},
    {"rotary_emb_fraction", "1.0"},
    {"rotary_emb_interleaved", "false"},
    {"rotary_emb_scale_base", "null"},
    {"rotary_scaling_factor", "null"},
    {"scale_attn_by_inverse_layer_idx", "false"},
    {"scale_attn_weights", "true"},
    {"use_rms_norm", "false"},
});
constexpr KnownMembers kMembers = {.members = kOwnMembers, .is_complete = false};

void complete(const JsonObject& config, TransformerConfig& result) {
  result.head_width = config.count("head_dim").value_or(result.head_width);
  result.attention = {
      {.rotary = read_rotary(config, config.number("rotary_emb_base").value_or(1000))}};
}

}  // namespace

constinit const Family kNomicBert = {.model_type = "nomic_bert",
                                     .title = "NomicBERT",
                                     .prefixes = kPrefixes,
                                     .spellings = kSpellings,
                                     .vocabulary = {"vocab_size", 30528},
                                     .positions = {"max_position_embeddings", 2048, "n_positions"},
                                     .token_types = {"type_vocab_size", 2},
                                     .hidden = {"hidden_size", 768, "n_embd"},
                                     .layers = {"num_hidden_layers", 12, "n_layer"},
                                     .heads = {"num_attention_heads", 12, "n_head"},
                                     .intermediate = {"intermediate_size", 3072, "n_inner"},
                                     .activation = {"hidden_act", "silu"},
                                     .norm_eps = {"layer_norm_eps", 1e-12, "layer_norm_epsilon"},
                                     .biases = {.norms = true,
                                                .query_key_value = false,
                                                .attention_output = false,
                                                .inner = false,
                                                .output = false},
                                     .members = &kMembers,
                                     .complete = complete};

}  // namespace tovana::sentence_transformers
