#include <array>

#include "sentence_transformers/model/families/family.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::array kSpellings = {TensorNames{
    .words = "embeddings.word_embeddings",
    .positions = "embeddings.position_embeddings",
    .embedding_norm = "embeddings.LayerNorm",
    .layers = "transformer.layer.",
    .query = ".attention.q_lin",
    .key = ".attention.k_lin",
    .value = ".attention.v_lin",
    .attention_output = ".attention.out_lin",
    .attention_norm = ".sa_layer_norm",
    .inner = ".ffn.lin1",
    .output = ".ffn.lin2",
    .output_norm = ".output_layer_norm",
}};
constexpr std::array<std::string_view, 1> kPrefixes = {"distilbert."};

}  // namespace

constinit const Family kDistilBert = {.model_type = "distilbert",
                                      .title = "DistilBERT",
                                      .prefixes = kPrefixes,
                                      .spellings = kSpellings,
                                      // Where a file has both names, the long one counts in the
                                      // models' own library.
                                      .hidden = {"hidden_size", 768, "dim"},
                                      .layers = {"num_hidden_layers", 6, "n_layers"},
                                      .heads = {"num_attention_heads", 12, "n_heads"},
                                      .intermediate = {"hidden_dim", 3072},
                                      .activation = {"activation", "gelu"},
                                      .norm_eps = {"", 1e-12},
                                      .position_table = PositionTable::from_zero};

}  // namespace tovana::sentence_transformers
