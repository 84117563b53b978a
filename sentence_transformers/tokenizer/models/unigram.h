#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "sentence_transformers/tokenizer/byte_trie.h"
#include "sentence_transformers/tokenizer/models/byte_tokens.h"
#include "sentence_transformers/tokenizer/models/model.h"

namespace tovana::sentence_transformers {

/// SentencePiece's unigram model: of all ways to cut a word into tokens, the one whose scores have
/// the highest sum.
///
/// A word takes time in proportion to its length, times the longest token.
class Unigram final : public Model {
 public:
  /// A token's id is its place. Throws ValueError when `unknown_id` is not one of them, or when
  /// they are too large.
  Unigram(const std::vector<std::pair<std::string_view, double>>& tokens, std::int32_t unknown_id,
          bool byte_fallback);

  void append_ids(std::string_view word, std::vector<std::int32_t>& ids) const override;
  std::optional<std::int32_t> id_of(std::string_view token) const noexcept override {
    return _trie.value_of(token);
  }
  std::size_t vocabulary_size() const noexcept override { return _scores.size(); }
  std::int32_t largest_id() const noexcept override { return _trie.largest_value(); }

 private:
  void _append_unknown(std::string_view text, std::vector<std::int32_t>& ids) const;

  ByteTrie _trie;
  std::vector<double> _scores;
  std::int32_t _unknown_id;
  double _unknown_score;
  std::optional<ByteTokenIds> _byte_ids;
};

}  // namespace tovana::sentence_transformers
