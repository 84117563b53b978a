#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "sentence_transformers/model/encoder.h"
#include "sentence_transformers/model/found_model.h"
#include "sentence_transformers/model/pooling.h"
#include "sentence_transformers/model/prompts.h"
#include "sentence_transformers/model/runtime.h"
#include "sentence_transformers/model/sentence_modules.h"
#include "sentence_transformers/tokenizer/tokenizer.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

struct EncodeParameters {
  /// The prompt that stands before every text, by its name; otherwise the model's default prompt, or
  /// none where it has no default.
  std::optional<std::string_view> prompt_name = std::nullopt;
  /// A text that does so in place of any of the model's prompts.
  std::optional<std::string_view> prompt = std::nullopt;
  bool normalize = false;  ///< Whether each vector is scaled to unit length.
  /// `[texts]`: how many tokens of each text were encoded, the prompt's and the special ones
  /// included, what was cut off not. Empty when nobody asks.
  std::span<std::uint32_t> token_counts = {};
};

/// A sentence-transformers model: texts in, vectors out, the same as Python's library of that name
/// gives up to rounding. Weights of half precision are raised to float32 when they are loaded, and
/// everything is computed in float32.
///
/// On the native runtime the same text gets the same vector to the bit, whatever it is encoded
/// together with and on however many threads. Another runtime's encoder may split its sums by that:
/// then it is the same vector up to rounding, some 1e-7 on unit vectors.
///
/// Threads: immutable; any number may encode at once. Each computes on itself and on at most as
/// many more as the runtime's setting for it says.
class SentenceTransformer {
 public:
  /// Loads a model from its folder, to be encoded by a runtime in a format that it supports. Blocks
  /// while the weights are read and arranged. Throws ModelFilesError, naming file and fault, for a model that is damaged or of a
  /// kind that is not supported here; RuntimeError when the system would not let us read it.
  static std::unique_ptr<const SentenceTransformer> load(
      const files::ModelDirectory& directory, const Runtime& runtime,
      NumberFormat format = NumberFormat::float32);

  /// Throws what `load` would throw, but for what is wrong with the weights' numbers, of which none
  /// is read.
  static void check(const files::ModelDirectory& directory, const Runtime& runtime);

  /// The floats of a vector.
  std::size_t dimension() const noexcept { return _dimension; }

  const Prompts& prompts() const noexcept { return _prompts; }

  /// Encodes well-formed UTF-8 texts into rows of `vectors`, `[texts.size() x dimension]`, in their
  /// order. A text beyond the model's length counts as far as that reaches. Memory beside the result
  /// is bounded by a number of tokens, whatever the number of texts. Throws ValueError, naming those
  /// there are, for a prompt that the model does not have; RuntimeError when what comes out is not
  /// finite.
  void encode(std::span<const std::string_view> texts, const EncodeParameters& options,
              float* vectors) const;

 private:
  struct Call;
  struct Round;

  SentenceTransformer(FoundModel found, const Runtime& runtime, NumberFormat format);

  std::size_t _count_skipped(std::string_view prompt) const;
  Round _tokenize(const Call& call, std::size_t first) const;
  void _encode(const Call& call, const Round& round) const;
  void _finish(const Call& call, const TokenBatch& batch, const float* states,
               const std::size_t* texts) const;

  const Kernels& _kernels;
  std::size_t _max_length;
  Tokenizer _tokenizer;
  std::unique_ptr<const Encoder> _encoder;
  Pooling _pooling;
  std::vector<SentenceModule> _modules;
  std::size_t _dimension;
  Prompts _prompts;
};

}  // namespace tovana::sentence_transformers
