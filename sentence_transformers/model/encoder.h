#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "sentence_transformers/model/token_batch.h"

namespace tovana::sentence_transformers {

/// An encoder: from tokens to a vector for each token that knows its neighbours.
///
/// Layers of two halves, attention and what follows it, each of which adds to a token's vector.
/// How its parts differ among the families of encoders is in `TransformerConfig`.
///
/// Threads: immutable; any number may encode at once.
class Encoder {
 public:
  /// Gets the last hidden states of a batch, `[rows x hidden]`, for as long as it runs. May be
  /// called for several batches at once, on threads of the encoder's.
  using Consumer = std::function<void(std::size_t batch, const float* states)>;

  Encoder() = default;
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;
  virtual ~Encoder() = default;

  /// The rows that a batch should have at most, but for one of a single text.
  virtual std::int64_t rows_per_batch() const noexcept = 0;

  /// Encodes each batch, in any order, on this thread and on as many more as the runtime's setting
  /// for it says. Throws RuntimeError for an id that the model has no row for, and what `consume`
  /// throws; no text may be longer than `TransformerConfig::max_length`.
  virtual void operator()(std::span<const TokenBatch> batches, const Consumer& consume) const = 0;
};

}  // namespace tovana::sentence_transformers
