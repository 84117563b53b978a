// BERT, and those that are BERT with other settings: ELECTRA, RoBERTa, XLM-RoBERTa and CamemBERT.

#include <array>

#include "sentence_transformers/model/families/family.h"
#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {
namespace {

constexpr TensorNames kNames = {
    .words = "embeddings.word_embeddings",
    .positions = "embeddings.position_embeddings",
    .token_types = "embeddings.token_type_embeddings",
    .embedding_norm = "embeddings.LayerNorm",
    .projection = "embeddings_project",
    .layers = "encoder.layer.",
    .query = ".attention.self.query",
    .key = ".attention.self.key",
    .value = ".attention.self.value",
    .attention_output = ".attention.output.dense",
    .attention_norm = ".attention.output.LayerNorm",
    .inner = ".intermediate.dense",
    .output = ".output.dense",
    .output_norm = ".output.LayerNorm",
};
constexpr std::array kSpellings = {kNames};

constexpr std::array<std::string_view, 1> kBertPrefixes = {"bert."};
constexpr std::array<std::string_view, 1> kElectraPrefixes = {"electra."};
constexpr std::array<std::string_view, 1> kRobertaPrefixes = {"roberta."};

constexpr std::array kOwnMembers = std::to_array<KnownMember>({
    {"position_embedding_type", R"("absolute")"},
});
constexpr KnownMembers kMembers = {.members = kOwnMembers, .is_complete = false};

constexpr Family bert() {
  return {.model_type = "bert",
          .title = "BERT",
          .prefixes = kBertPrefixes,
          .spellings = kSpellings,
          .token_types = {"type_vocab_size", 2},
          .position_table = PositionTable::from_zero,
          .members = &kMembers};
}

constexpr Family roberta(std::string_view model_type, std::string_view title) {
  Family family = bert();
  family.model_type = model_type;
  family.title = title;
  family.prefixes = kRobertaPrefixes;
  family.padding_id = {"pad_token_id", 1, {}, 0};
  family.position_table = PositionTable::behind_padding;
  return family;
}

void complete_electra(const JsonObject& config, TransformerConfig& result) {
  result.embedding_width = config.count("embedding_size").value_or(128);
}

constexpr Family electra() {
  Family family = bert();
  family.model_type = "electra";
  family.title = "ELECTRA";
  family.prefixes = kElectraPrefixes;
  family.hidden.otherwise = 256;
  family.heads.otherwise = 4;
  family.intermediate.otherwise = 1024;
  family.complete = complete_electra;
  return family;
}

}  // namespace

constinit const Family kBert = bert();
constinit const Family kCamembert = roberta("camembert", "CamemBERT");
constinit const Family kElectra = electra();
constinit const Family kRoberta = roberta("roberta", "RoBERTa");
constinit const Family kXlmRoberta = roberta("xlm-roberta", "XLM-RoBERTa");

}  // namespace tovana::sentence_transformers
