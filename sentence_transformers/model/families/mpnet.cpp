#include <array>

#include "sentence_transformers/model/families/family.h"
#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::array kSpellings = {TensorNames{
    .words = "embeddings.word_embeddings",
    .positions = "embeddings.position_embeddings",
    .embedding_norm = "embeddings.LayerNorm",
    .distance_bias = "encoder.relative_attention_bias",
    .layers = "encoder.layer.",
    .query = ".attention.attn.q",
    .key = ".attention.attn.k",
    .value = ".attention.attn.v",
    .attention_output = ".attention.attn.o",
    .attention_norm = ".attention.LayerNorm",
    .inner = ".intermediate.dense",
    .output = ".output.dense",
    .output_norm = ".output.LayerNorm",
}};
constexpr std::array<std::string_view, 1> kPrefixes = {"mpnet."};

constexpr std::array kOwnMembers = std::to_array<KnownMember>({
    {"position_embedding_type", R"("absolute")"},
});
constexpr KnownMembers kMembers = {.members = kOwnMembers, .is_complete = false};

void complete(const JsonObject& config, TransformerConfig& result) {
  result.distance_buckets =
      config.count("relative_attention_num_buckets", kMPNetBuckets).value_or(kMPNetBuckets);
}

}  // namespace

// Its code does not ask the configuration for the padding's id.
constinit const Family kMPNet = {.model_type = "mpnet",
                                 .title = "MPNet",
                                 .prefixes = kPrefixes,
                                 .spellings = kSpellings,
                                 .vocabulary = {"vocab_size", 30527},
                                 .padding_id = {"", 1},
                                 .position_table = PositionTable::behind_padding,
                                 .members = &kMembers,
                                 .complete = complete};

}  // namespace tovana::sentence_transformers
