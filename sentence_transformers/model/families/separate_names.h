#pragma once

#include "sentence_transformers/model/families/family.h"

namespace tovana::sentence_transformers {

/// What today's code of Python's library calls the tensors of NomicBERT and GTE, each matrix apart;
/// it writes files with older names, which differ.
inline constexpr TensorNames kSeparateNames = {
    .words = "embeddings.word_embeddings",
    .token_types = "embeddings.token_type_embeddings",
    .embedding_norm = "embeddings.LayerNorm",
    .layers = "layers.",
    .query = ".self_attn.q_proj",
    .key = ".self_attn.k_proj",
    .value = ".self_attn.v_proj",
    .attention_output = ".self_attn.o_proj",
    .attention_norm = ".post_attention_layernorm",
    .inner = ".mlp.gate_proj",
    .factor = ".mlp.up_proj",
    .output = ".mlp.down_proj",
    .output_norm = ".post_mlp_layernorm",
};

}  // namespace tovana::sentence_transformers
