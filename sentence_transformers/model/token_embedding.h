#pragma once

#include <cstddef>
#include <cstdint>

#include "sentence_transformers/compute/matrix.h"
#include "sentence_transformers/model/checkpoint.h"
#include "sentence_transformers/model/token_batch.h"
#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {

/// What an encoder begins with: a vector for each token, from the tables of words, positions and
/// token types.
///
/// BERT counts positions from 0. MPNet counts from 2 and skips padding tokens written in the text.
class TokenEmbedding {
 public:
  /// Reads the tables, on that many threads; throws what `Checkpoint::tensor` does.
  TokenEmbedding(const Checkpoint& checkpoint, const TransformerConfig& config,
                 std::size_t threads);

  /// Throws RuntimeError for an id that the model has no row for.
  void check(const TokenBatch& batch) const;

  /// Fills `[batch.rows() x hidden]`. Every id has been checked, and no text is longer than the
  /// model allows.
  void operator()(const TokenBatch& batch, float* out) const;

 private:
  bool _is_bert;
  Table _words;  ///< `[vocabulary x hidden]`; only the rows that texts ask for are read.
  Matrix _positions;
  Matrix _token_types;  ///< BERT: every token gets the first row.
};

}  // namespace tovana::sentence_transformers
