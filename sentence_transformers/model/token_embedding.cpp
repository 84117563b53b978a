#include "sentence_transformers/model/token_embedding.h"

#include <string>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

/// The number of MPNet's code, which does not ask the configuration for it.
constexpr std::int32_t kMPNetPaddingId = 1;

}  // namespace

TokenEmbedding::TokenEmbedding(const Checkpoint& checkpoint, const TransformerConfig& config,
                               std::size_t threads)
    : _is_bert(config.architecture == Architecture::bert),
      _words(checkpoint.table("embeddings.word_embeddings.weight", threads)),
      _positions(checkpoint.tensor("embeddings.position_embeddings.weight")) {
  if (_is_bert) _token_types = checkpoint.tensor("embeddings.token_type_embeddings.weight");
}

void TokenEmbedding::check(const TokenBatch& batch) const {
  const auto vocabulary = static_cast<std::int64_t>(_words.matrix.rows());
  for (const std::int32_t id : batch.ids()) {
    if (id >= 0 && id < vocabulary) continue;
    throw RuntimeError("the tokenizer gave the id " + std::to_string(id) + ", and the model has " +
                       std::to_string(vocabulary) + " words");
  }
}

void TokenEmbedding::operator()(const TokenBatch& batch, float* out) const {
  const std::size_t width = _words.matrix.columns();
  const float* const type = _token_types.data();
  auto id = batch.ids().begin();
  for (const TokenBatch::Group& group : batch.groups()) {
    for (std::int64_t text = 0; text < group.texts; ++text) {
      std::int64_t counted = 0;
      for (std::int64_t index = 0; index < group.length; ++index, ++id, out += width) {
        const bool counts = _is_bert || *id != kMPNetPaddingId;
        const std::int64_t position =
            _is_bert ? index : (counts ? kMPNetPaddingId + ++counted : kMPNetPaddingId);
        const float* const word = _words.matrix.row(static_cast<std::size_t>(*id)).data();
        const float* const place = _positions.row(static_cast<std::size_t>(position)).data();
        // The sums in the order in which the models were trained: the last digits depend on it.
        for (std::size_t i = 0; i < width; ++i) {
          out[i] = (_is_bert ? word[i] + type[i] : word[i]) + place[i];
        }
      }
    }
  }
}

}  // namespace tovana::sentence_transformers
