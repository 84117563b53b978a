#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "sentence_transformers/tokenizer/added_tokens.h"
#include "sentence_transformers/tokenizer/pipeline.h"
#include "sentence_transformers/tokenizer/tokenizer_files.h"

namespace tovana::files {
class ModelDirectory;
}  // namespace tovana::files

namespace tovana::sentence_transformers {

struct TokenizerSettings;

/// Makes token ids of texts, the very ids that the models' own library makes: any difference would
/// be another vector.
///
/// Literal added tokens in a text ("[SEP]", "<mask>") become their ids, as they do there.
///
/// Threads: immutable; any number may use one at once. Nothing blocks.
class Tokenizer {
 public:
  /// Throws ModelFilesError, naming file and fault, for files that are malformed or describe a
  /// tokenizer of a kind that is not supported, saying what is.
  explicit Tokenizer(TokenizerFiles files, const TokenizerOptions& options = {});

  /// From the files of a model's folder; also throws what reading them does.
  static Tokenizer load(const files::ModelDirectory& directory,
                        const TokenizerOptions& options = {});

  /// The ids of a text: the special tokens before it, its own, those behind it; at least one. A text
  /// that would have more than `max_length` ids is cut at its end, and what is cut off is not
  /// cut into tokens; or at its beginning, where the files say so. Ill-formed UTF-8 reads as U+FFFD.
  /// Throws ValueError when `max_length` is below `special_count()`, and when an expression of the
  /// files takes far too long on the text.
  std::vector<std::int32_t> encode(std::string_view text, std::size_t max_length) const;

  /// How many special tokens every text gets, at least 1; 2 for BERT.
  std::size_t special_count() const noexcept { return _before.size() + _behind.size(); }

  /// Whether an id is that of a special token: one at the ends of every text, or one that the files
  /// call special.
  bool is_special_id(std::int32_t id) const noexcept;

  /// No id that `encode` returns is above it: the embedding matrix needs one row more.
  std::int32_t largest_id() const noexcept { return _largest_id; }

 private:
  explicit Tokenizer(TokenizerSettings&& settings);

  void _give_ids(std::vector<AddedToken>& tokens);
  void _read_special_tokens(const TokenizerSettings& settings);

  std::unique_ptr<const Pipeline> _pipeline;
  std::int32_t _largest_id = 0;
  AddedTokens _raw_tokens = AddedTokens({});         ///< Looked for in the text.
  AddedTokens _normalized_tokens = AddedTokens({});  ///< Looked for in its normalized pieces.
  std::vector<std::int32_t> _before;
  std::vector<std::int32_t> _behind;
  std::vector<std::int32_t> _special_ids;  ///< Ascending.
  bool _keeps_end;
  bool _may_cut = false;  ///< A text may be cut where no word and no token reaches across.
};

}  // namespace tovana::sentence_transformers
