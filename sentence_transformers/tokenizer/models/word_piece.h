#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sentence_transformers/tokenizer/byte_trie.h"
#include "sentence_transformers/tokenizer/models/model.h"

namespace tovana::sentence_transformers {

struct WordPieceOptions {
  std::string unknown_token = "[UNK]";
  std::string continuing_prefix = "##";  ///< Before every piece but a word's first.
  std::size_t most_characters = 100;     ///< A longer word is unknown.
};

/// Cuts words into pieces of a vocabulary: the longest piece that the word begins with, then the
/// longest that the rest does. A word with a place where no piece fits is unknown as a whole.
///
/// Pieces that continue a word are looked up below the node of their prefix, in the same trie.
/// Threads: immutable; any number may use one.
class WordPiece final : public Model {
 public:
  /// Throws ValueError when the unknown token is not in the vocabulary, or that is too large.
  WordPiece(std::vector<ByteTrie::Entry> vocabulary, const WordPieceOptions& options);

  /// Appends the ids of a word, which is not empty: at least one.
  void append_ids(std::string_view word, std::size_t characters,
                  std::vector<std::int32_t>& ids) const {
    const std::size_t before = ids.size();
    if (characters <= _most_characters) {
      const char* at = word.data();
      const char* const end = at + word.size();
      ByteTrie::Match match = _trie.longest_match(at, end);
      while (match.size > 0) {
        ids.push_back(match.value);
        at += match.size;
        if (at == end) return;
        if (!_continuation) break;
        match = _trie.longest_match(at, end, *_continuation);
      }
    }
    ids.resize(before);
    ids.push_back(_unknown_id);
  }

  void append_ids(std::string_view word, std::vector<std::int32_t>& ids) const override;
  std::optional<std::int32_t> id_of(std::string_view token) const noexcept override {
    return _trie.value_of(token);
  }
  std::size_t vocabulary_size() const noexcept override { return _trie.size(); }
  std::int32_t largest_id() const noexcept override { return _trie.largest_value(); }

 private:
  ByteTrie _trie;
  std::optional<ByteTrie::Node> _continuation;
  std::size_t _most_characters;
  std::int32_t _unknown_id;
};

}  // namespace tovana::sentence_transformers
