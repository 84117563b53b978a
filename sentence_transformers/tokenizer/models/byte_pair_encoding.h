#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sentence_transformers/tokenizer/byte_trie.h"
#include "sentence_transformers/tokenizer/models/byte_tokens.h"
#include "sentence_transformers/tokenizer/models/model.h"

namespace tovana::sentence_transformers {

struct BytePairOptions {
  std::optional<std::string> unknown_token;  ///< None: unknown characters are dropped.
  std::string continuing_prefix;             ///< Before every character but a word's first.
  std::string word_suffix;                   ///< Behind a word's last character.
  bool fuse_unknown = false;                 ///< Neighbours that are unknown are one token.
  bool byte_fallback = false;                ///< An unknown character is its bytes: "<0xE2>"...
  bool ignore_merges = false;                ///< A word that is a token is that token.
};

/// Byte-pair encoding: begins with a word's characters, and joins the two neighbours whose pair
/// comes first in a list, the leftmost of equal ones, until no pair is in it.
///
/// A word of n characters takes n log n steps at most.
class BytePairEncoding final : public Model {
 public:
  struct Merge {
    std::string_view left;
    std::string_view right;
  };

  /// Throws ValueError when a merge has parts, or makes a token, that the vocabulary lacks; when
  /// the unknown token is not in it; or when it is too large.
  BytePairEncoding(std::vector<ByteTrie::Entry> vocabulary, const std::vector<Merge>& merges,
                   const BytePairOptions& options);

  void append_ids(std::string_view word, std::vector<std::int32_t>& ids) const override;
  std::optional<std::int32_t> id_of(std::string_view token) const noexcept override {
    return _trie.value_of(token);
  }
  std::size_t vocabulary_size() const noexcept override { return _trie.size(); }
  std::int32_t largest_id() const noexcept override { return _trie.largest_value(); }

 private:
  static constexpr std::uint32_t kNoRank = ~std::uint32_t{0};

  /// What a pair becomes; `kNoRank` when it stays two.
  struct Joined {
    std::uint32_t rank = kNoRank;
    std::int32_t id = 0;
  };
  struct Rule {
    std::int32_t right;
    Joined joined;
  };
  class LongWord;

  void _read_merges(const std::vector<Merge>& merges);
  void _append_characters(std::string_view word, std::vector<std::int32_t>& symbols) const;
  Joined _joined(std::int32_t left, std::int32_t right) const noexcept;
  std::size_t _join_short(std::int32_t* symbols, std::size_t count) const;

  ByteTrie _trie;
  BytePairOptions _options;
  std::optional<std::int32_t> _unknown_id;
  std::optional<ByteTokenIds> _byte_ids;
  bool _is_plain = true;  ///< Characters are looked up as they are.
  /// The ids of the characters below, which are all there are of a byte-level vocabulary.
  std::array<std::int32_t, 0x200> _first_ids = {};
  std::vector<std::uint32_t> _rules_of;  ///< Where the rules of a left one begin; one more at last.
  std::vector<Rule> _rules;              ///< Of each left one by their right ones.
};

}  // namespace tovana::sentence_transformers
