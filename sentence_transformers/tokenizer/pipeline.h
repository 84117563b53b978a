#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sentence_transformers/tokenizer/models/model.h"
#include "sentence_transformers/tokenizer/normalizers/normalizer.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/pre_tokenizer.h"

namespace tovana::sentence_transformers {

/// The steps from a text without added tokens to its ids.
///
/// Threads: immutable; any number may use one.
class Pipeline {
 public:
  Pipeline() = default;
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;
  virtual ~Pipeline() = default;

  /// Ill-formed sequences are read as U+FFFD.
  virtual std::string normalize(std::string_view text) const = 0;

  /// Appends the ids of a piece until there are `most`, or a few more. Returns whether there are
  /// fewer.
  virtual bool append_ids(const Piece& piece, std::size_t most,
                          std::vector<std::int32_t>& ids) const = 0;
  /// The same for a piece of a text that is normalized.
  virtual bool append_normalized_ids(const Piece& piece, std::size_t most,
                                     std::vector<std::int32_t>& ids) const = 0;

  /// Whether a text has the same ids if it is cut before a space.
  virtual bool may_be_cut() const noexcept = 0;

  virtual const Model& model() const noexcept = 0;
};

/// The steps in their order; those of BERT, when there are no others, in one pass.
std::unique_ptr<const Pipeline> make_pipeline(std::vector<NormalizerStep> normalizers,
                                              std::vector<PreTokenizerStep> pre_tokenizers,
                                              ModelStep model);

}  // namespace tovana::sentence_transformers
