#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sentence_transformers/tokenizer/byte_trie.h"

namespace tovana::sentence_transformers {

/// A token that is recognised in the text before it is cut into words.
struct AddedToken {
  std::string content;
  std::int32_t id = 0;
  bool single_word = false;  ///< Only where no word character touches it.
  bool lstrip = false;       ///< Takes the white space before it along.
  bool rstrip = false;       ///< Takes the white space behind it along.
  /// Looked for in the normalized text, with its content normalized; otherwise in the text as
  /// given.
  bool normalized = false;
  bool special = false;
};

/// Finds the added tokens of one of the two searches in a text: from the left, the longest at each
/// place, none overlapping another.
///
/// A search takes time in proportion to the text, times the longest content (`kLongestContent`
/// bounds it) for a text that is all but the same as one.
/// Threads: immutable; any number may use one.
class AddedTokens {
 public:
  static constexpr std::size_t kLongestContent = 256;

  /// Each token's content is as it appears in the text that is searched; of equal ones the last
  /// counts. Contents are at most a few times `kLongestContent` long.
  explicit AddedTokens(std::vector<AddedToken> tokens);

  bool empty() const noexcept { return _tokens.empty(); }

  /// Whether a token has white space in it.
  bool holds_space() const noexcept { return _holds_space; }

  /// Calls `on_text(piece)` for each piece between tokens that is not empty, and `on_token(id)` for
  /// each token, in order. Ends early when one returns false, and then returns false.
  ///
  /// If it `may_cut`, what lies between two tokens may come in several pieces, each beginning at
  /// white space: what is looked at is then little more than what the calls have seen.
  template <class OnText, class OnToken>
  bool split(std::string_view text, bool may_cut, const OnText& on_text,
             const OnToken& on_token) const {
    std::size_t piece = 0;
    std::size_t searched = 0;
    while (searched < text.size()) {
      const std::size_t until =
          may_cut && text.size() - searched > kWindow ? searched + kWindow : text.size();
      const std::optional<Match> match = _find(text, searched, until);
      if (!match) {
        const std::size_t cut = until < text.size() ? _last_space(text, searched, until) : piece;
        if (cut > piece && !on_text(text.substr(piece, cut - piece))) return false;
        piece = cut > piece ? cut : piece;
        searched = until;
        continue;
      }
      searched = match->end;
      const AddedToken& token = *match->token;
      if (token.single_word && !_stands_alone(text, *match)) continue;
      std::size_t begin = match->begin;
      if (token.lstrip) begin = _space_before(text, begin, piece);
      if (piece < begin && !on_text(text.substr(piece, begin - piece))) return false;
      if (!on_token(token.id)) return false;
      // What an earlier token took along need not be looked at again.
      piece = piece > match->end ? piece : match->end;
      if (token.rstrip) piece = _space_behind(text, piece);
    }
    return piece >= text.size() || on_text(text.substr(piece));
  }

 private:
  struct Match {
    std::size_t begin;
    std::size_t end;
    const AddedToken* token;
  };

  /// Longer than most texts, which are then searched in one go.
  static constexpr std::size_t kWindow = 16384;

  /// The first that begins in [from, until).
  std::optional<Match> _find(std::string_view text, std::size_t from,
                             std::size_t until) const noexcept;
  /// The last space or newline in [from, until); 0 when there is none.
  static std::size_t _last_space(std::string_view text, std::size_t from,
                                 std::size_t until) noexcept;
  static bool _stands_alone(std::string_view text, const Match& match) noexcept;
  static std::size_t _space_before(std::string_view text, std::size_t end,
                                   std::size_t floor) noexcept;
  static std::size_t _space_behind(std::string_view text, std::size_t begin) noexcept;

  std::vector<AddedToken> _tokens;
  ByteTrie _trie;                      ///< To the tokens' places in `_tokens`.
  std::array<bool, 256> _begins = {};  ///< Bytes that a token begins with.
  bool _holds_space = false;
  std::optional<char> _only_begin;  ///< When there is one such byte alone.
};

}  // namespace tovana::sentence_transformers
