#include "sentence_transformers/model/token_embedding.h"

#include <string>
#include <string_view>

#include "sentence_transformers/model/encoder_tensors.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

Matrix load(const Checkpoint& checkpoint, std::string_view name, bool has_it) {
  return has_it ? checkpoint.tensor(std::string(name) + ".weight") : Matrix();
}

}  // namespace

TokenEmbedding::TokenEmbedding(const Checkpoint& checkpoint, const TransformerConfig& config,
                               std::size_t threads)
    : _counting(config.family->position_table), _padding_id(config.padding_id) {
  const EncoderNames names(checkpoint, config);
  _words = checkpoint.table(std::string(names->words) + ".weight", threads);
  _token_types = load(checkpoint, names->token_types, config.token_types > 0);
  _positions = load(checkpoint, names->positions, _counting != PositionTable::none);
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
  const float* const type = _token_types.data();
  const std::span<const std::int32_t> ids(batch.ids());
  for (const TokenBatch::Group& group : batch.groups()) {
    const auto length = static_cast<std::size_t>(group.length);
    for (std::int64_t text = 0; text < group.texts; ++text) {
      const auto first = static_cast<std::size_t>(group.first_row + text * group.length);
      float* const rows = out + first * width();
      for (std::size_t i = 0; i < length; ++i) {
        const float* const word =
            _words.matrix.row(static_cast<std::size_t>(ids[first + i])).data();
        float* const row = rows + i * width();
        // The sums in the order in which the models were trained: the last digits depend on it.
        for (std::size_t k = 0; k < width(); ++k) {
          row[k] = type == nullptr ? word[k] : word[k] + type[k];
        }
      }
      if (!_positions.empty()) _add_positions(ids.subspan(first, length), rows);
    }
  }
}

void TokenEmbedding::_add_positions(std::span<const std::int32_t> ids, float* out) const {
  std::int64_t counted = 0;
  for (std::size_t i = 0; i < ids.size(); ++i, out += width()) {
    auto position = static_cast<std::int64_t>(i);
    if (_counting == PositionTable::behind_padding) {
      position = ids[i] == _padding_id ? _padding_id : _padding_id + ++counted;
    }
    const float* const place = _positions.row(static_cast<std::size_t>(position)).data();
    for (std::size_t k = 0; k < width(); ++k) out[k] += place[k];
  }
}

}  // namespace tovana::sentence_transformers
