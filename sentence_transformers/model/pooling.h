#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "sentence_transformers/model/token_batch.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

/// From the vectors of a text's tokens to one of the text: one or several modes, whose results
/// stand side by side.
class Pooling {
 public:
  enum class Mode { cls, max, mean, mean_sqrt_len_tokens, weightedmean, lasttoken };

  /// Of one mode, for a model without a list of modules.
  Pooling(std::int64_t width, Mode mode) : Pooling(width, std::vector{mode}, true) {}

  /// Reads the module's config.json. Throws ModelFilesError, naming file and fault, for a mode that
  /// is not known or vectors that are not `width` wide.
  static Pooling read(const files::ModelDirectory& directory, std::int64_t width);

  /// The floats of a text's vector.
  std::int64_t dimension() const noexcept {
    return _width * static_cast<std::int64_t>(_modes.size());
  }

  /// Whether the tokens of a prompt count. When not, the special token before it does not either.
  bool includes_prompt() const noexcept { return _includes_prompt; }

  /// `[batch.rows() x width]` to `[batch.texts() x dimension]`. The first `skipped` tokens of each
  /// text do not count; its last one always does.
  void operator()(const float* tokens, const TokenBatch& batch, std::size_t skipped,
                  float* out) const;

 private:
  Pooling(std::int64_t width, std::vector<Mode> modes, bool includes_prompt)
      : _width(width), _modes(std::move(modes)), _includes_prompt(includes_prompt) {}

  std::int64_t _width;
  std::vector<Mode> _modes;
  bool _includes_prompt;
};

}  // namespace tovana::sentence_transformers
