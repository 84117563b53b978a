#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "sentence_transformers/compute/matrix.h"
#include "sentence_transformers/model/checkpoint.h"
#include "sentence_transformers/model/token_batch.h"
#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {

/// What an encoder begins with: a vector for each token, from the tables of words, positions and
/// token types, as far as it has them.
class TokenEmbedding {
 public:
  /// Reads the tables, on that many threads; throws what `Checkpoint::tensor` does.
  TokenEmbedding(const Checkpoint& checkpoint, const TransformerConfig& config,
                 std::size_t threads);

  std::size_t width() const noexcept { return _words.matrix.columns(); }

  /// Throws RuntimeError for an id that the model has no row for.
  void check(const TokenBatch& batch) const;

  /// Fills `[batch.rows() x width()]`. Every id has been checked, and no text is longer than the
  /// model allows.
  void operator()(const TokenBatch& batch, float* out) const;

 private:
  /// Adds the rows of a text's positions.
  void _add_positions(std::span<const std::int32_t> ids, float* out) const;

  Table _words;         ///< `[vocabulary x width]`; only the rows that texts ask for are read.
  Matrix _token_types;  ///< Every token gets the first row; or empty.
  PositionTable _counting;
  std::int64_t _padding_id;
  Matrix _positions;  ///< Or empty.
};

}  // namespace tovana::sentence_transformers
