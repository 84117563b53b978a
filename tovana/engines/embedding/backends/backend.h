#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tovana/base/export.h"

namespace tovana::embedding {

/// The embedding of one text: `dimension` 64-bit floats.
using Vector = std::vector<double>;

/// What turns texts into vectors: the hashing embedder, a local model, or an HTTP endpoint of
/// either kind.
///
/// Threads: every operation may be called from any number of threads at once.
class TOVANA_API EmbeddingBackend {
 public:
  virtual ~EmbeddingBackend() = default;
  EmbeddingBackend(const EmbeddingBackend&) = delete;
  EmbeddingBackend& operator=(const EmbeddingBackend&) = delete;

  /// Human-readable backend name. It also names the vector space: vectors made under different
  /// names cannot be compared. Never changes for the life of the backend.
  virtual const std::string& name() const noexcept = 0;

  /// Embedding vector dimension: the number of floats in each vector. A backend that learns it from
  /// an endpoint's reply may change it during a call of `embed`.
  virtual std::int64_t dimension() const noexcept = 0;

  /// Embeds a batch of texts into vectors: `[texts.size() x dimension]`, in the order of the texts.
  /// No texts give no vectors. Texts are UTF-8; an ill-formed sequence is read as U+FFFD. Blocks
  /// for as long as the work takes. Throws what the implementation says.
  virtual std::vector<Vector> embed(const std::vector<std::string>& texts) = 0;

  /// Loads whatever the first `embed` needs (the model, for a local backend). Blocks meanwhile;
  /// throws when it cannot. After it has succeeded, calling it again loads nothing more.
  virtual void warm_up() = 0;

 protected:
  EmbeddingBackend() = default;
};

}  // namespace tovana::embedding
