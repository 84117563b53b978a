#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sentence_transformers/tokenizer/character_set.h"

namespace tovana::sentence_transformers {

/// A regular expression as tokenizer.json has them, written for Oniguruma, of which it knows what
/// such files use: alternatives, groups, `(?i:`, `(?=`, `(?!`, `(?>`, sets, `\s \d \w \p{L}` and
/// the other general categories, and all repetitions. Our own, and not ICU's, because characters
/// have to be letters here that were letters when a model was trained, on every machine.
///
/// Threads: immutable; any number may use one.
class Expression {
 public:
  /// Throws ValueError, saying what it is that cannot be followed, for another expression, and for
  /// one that matches an empty text.
  explicit Expression(std::string_view pattern);

  /// Matches a text as it stands, which is not empty.
  static Expression literal(std::string_view text);

  /// Calls `on_match(begin, end)` for each match, from the left, none overlapping another. Ends
  /// early when that returns false, and then returns false. Throws ValueError when it takes more
  /// than a few hundred steps for each byte.
  template <class OnMatch>
  bool for_each_match(std::string_view text, const OnMatch& on_match) const {
    Search search(*this, text);
    while (const std::optional<Match> match = search.next()) {
      if (!on_match(match->begin, match->end)) return false;
    }
    return true;
  }

 private:
  friend class ExpressionParser;

  enum class Op : std::uint8_t {
    set,     ///< One character of a set.
    repeat,  ///< Some of a set, as many as there are; fewer when the rest does not match.
    hold,    ///< The same, but never fewer.
    split,   ///< Goes on at one place, and at the other when that does not match.
    jump,
    look,    ///< What follows up to `accept` has to match here, or must not.
    atomic,  ///< What follows up to `accept` matches in the first way that it can.
    accept,
  };

  struct Instruction {
    Op op = Op::accept;
    bool negated = false;      ///< look
    std::uint32_t target = 0;  ///< The set; or where it goes on, of `split` first.
    std::uint32_t other = 0;   ///< split
    std::uint32_t least = 1;   ///< repeat, hold
    std::uint32_t most = 1;
  };

  struct Match {
    std::size_t begin;
    std::size_t end;
  };

  /// One way that is left to try.
  struct Choice {
    std::uint32_t instruction;
    const char* at;
    const char* least;  ///< Of a repetition, which then gives back a character at a time.
  };

  class Search {
   public:
    Search(const Expression& expression, std::string_view text);
    std::optional<Match> next();

   private:
    const char* _match(std::uint32_t instruction, const char* at);
    /// The end of a run of a set; `least` becomes where it may end first, null if it is too short.
    const char* _run(const Instruction& repeat, const char* at, const char** least);
    bool _take(const CharacterSet& set, const char** at) const;
    void _spend(std::size_t steps);

    const Expression& _expression;
    std::string_view _text;
    std::size_t _at = 0;
    std::size_t _steps_left;
    std::vector<Choice> _choices;
  };

  Expression() = default;

  std::vector<CharacterSet> _sets;
  std::vector<Instruction> _program;
};

}  // namespace tovana::sentence_transformers
