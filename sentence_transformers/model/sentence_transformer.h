#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sentence_transformers/model/encoder.h"
#include "sentence_transformers/model/module_list.h"
#include "sentence_transformers/model/pooling.h"
#include "sentence_transformers/model/sentence_modules.h"
#include "sentence_transformers/tokenizer/tokenizer.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

/// A sentence-transformers model: texts in, vectors out, the same as Python's library of that name
/// gives up to rounding. Weights of half precision are raised to float32 when they are loaded, and
/// everything is computed in float32.
///
/// On kernels of our own the encoder gives the same text the same states to the bit. libtorch's
/// operators, and a Dense module, split their sums by what a text is encoded together with and by
/// the number of threads: there it is the same vector up to rounding, some 1e-7 on unit vectors.
///
/// Threads: immutable; any number may encode at once. Each computes on itself and on at most as
/// many more as libtorch's setting for it says.
class SentenceTransformer {
 public:
  /// Loads a model from its folder. Blocks while the weights are read and arranged. Throws
  /// ModelFilesError, naming file and fault, for a model that is damaged or of a kind that is not
  /// supported here; RuntimeError when the system would not let us read it.
  static std::unique_ptr<const SentenceTransformer> load(const files::ModelDirectory& directory,
                                                         const Kernels* kernels = &best_kernels());

  /// The floats of a vector.
  std::int64_t dimension() const noexcept { return _dimension; }

  /// Encodes well-formed UTF-8 texts into rows of `vectors`, `[texts.size() x dimension]`, in their
  /// order; in unit length if `normalize`. A text beyond the model's length counts as far as that
  /// reaches. Memory beside the result is bounded by a number of tokens, not by the number of
  /// texts.
  void encode(std::span<const std::string_view> texts, bool normalize, float* vectors) const;

 private:
  SentenceTransformer(const files::ModelDirectory& directory,
                      const std::vector<ModuleEntry>& modules,
                      const files::ModelDirectory& transformer, const TransformerConfig& config,
                      const Kernels* kernels);

  void _read_modules(const files::ModelDirectory& directory,
                     const std::vector<ModuleEntry>& modules);
  void _read_settings(const files::ModelDirectory& directory);
  std::vector<std::int32_t> _tokenize(std::string_view text) const;
  at::Tensor _encode(std::span<const TokenBatch> batches, bool normalize) const;

  std::size_t _max_length;
  Tokenizer _tokenizer;
  std::unique_ptr<const Encoder> _encoder;
  Pooling _pooling;
  std::vector<SentenceModule> _modules;
  std::int64_t _dimension = 0;
  std::string _prompt;               ///< Stands before every text.
  std::int64_t _skipped_tokens = 0;  ///< Those of the prompt, if the pooling leaves them out.
};

}  // namespace tovana::sentence_transformers
