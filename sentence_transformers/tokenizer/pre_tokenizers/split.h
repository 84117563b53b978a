#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "sentence_transformers/tokenizer/expression.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/pre_tokenizer.h"

namespace tovana::sentence_transformers {

/// What becomes of that at which a text is cut.
enum class SplitBehavior : std::uint8_t {
  removed,
  isolated,              ///< A piece of its own.
  merged_with_previous,  ///< The end of the piece before it.
  merged_with_next,      ///< The beginning of the piece behind it.
  contiguous,            ///< A piece, together with others next to it.
};

/// Joins what matches and what lies between into pieces.
template <class Sink>
class Splitter {
 public:
  Splitter(SplitBehavior behavior, const Piece& piece, const Sink& sink)
      : _behavior(behavior), _piece(piece), _sink(sink) {}

  /// The next part of the piece, which ends at `end`.
  bool add(std::size_t end, bool is_match) {
    const std::size_t begin = std::exchange(_part_end, end);
    if (begin == end) return true;
    const bool was_match = std::exchange(_was_match, is_match);
    switch (_behavior) {
      case SplitBehavior::removed:
        if (!is_match) return _give(begin, end);
        _begin = end;
        return true;
      case SplitBehavior::isolated:
        return _give(begin, end);
      case SplitBehavior::merged_with_previous:
        // It belongs to what is no match itself.
        if (is_match && !was_match && begin > 0) return _give(_begin, end);
        if (!_give(_begin, begin)) return false;
        if (is_match) return _give(begin, end);
        return true;
      case SplitBehavior::merged_with_next:
        if (!is_match) return _give(_begin, end);
        return _give(_begin, begin);
      case SplitBehavior::contiguous:
        return is_match == was_match || _give(_begin, begin);
    }
    return true;
  }

  bool finish() { return _give(_begin, _part_end); }

 private:
  bool _give(std::size_t begin, std::size_t end) {
    _begin = end;
    if (begin >= end) return true;
    return _sink(Piece{_piece.text.substr(begin, end - begin), _piece.begins_text && begin == 0});
  }

  SplitBehavior _behavior;
  const Piece& _piece;
  const Sink& _sink;
  std::size_t _begin = 0;  ///< Of what is not given yet.
  std::size_t _part_end = 0;
  bool _was_match = false;
};

/// Cuts a piece at what an expression matches; inverted, at what it does not.
template <class Sink>
bool split_by(const Expression& expression, SplitBehavior behavior, bool inverted,
              const Piece& piece, const Sink& sink) {
  Splitter<Sink> splitter(behavior, piece, sink);
  const bool all = expression.for_each_match(piece.text, [&](std::size_t begin, std::size_t end) {
    return splitter.add(begin, inverted) && splitter.add(end, !inverted);
  });
  return all && splitter.add(piece.text.size(), inverted) && splitter.finish();
}

/// Cuts at what an expression matches.
class Split final : public PreTokenizer {
 public:
  Split(Expression pattern, SplitBehavior behavior, bool inverted)
      : _pattern(std::move(pattern)), _behavior(behavior), _inverted(inverted) {}

  bool split(const Piece& piece, const PieceSink& sink) const override {
    return split_by(_pattern, _behavior, _inverted, piece, sink);
  }

 private:
  Expression _pattern;
  SplitBehavior _behavior;
  bool _inverted;
};

/// Cuts at every character of a kind.
class SplitAtCharacters final : public PreTokenizer {
 public:
  using Kind = bool (*)(char32_t);

  SplitAtCharacters(Kind kind, SplitBehavior behavior) noexcept
      : _kind(kind), _behavior(behavior) {}

  bool split(const Piece& piece, const PieceSink& sink) const override;

 private:
  Kind _kind;
  SplitBehavior _behavior;
};

bool is_punctuation(char32_t code_point);
bool is_numeric(char32_t code_point);

/// Cuts between words, runs of other characters that are no white space, and that, which it drops.
class Whitespace final : public PreTokenizer {
 public:
  bool split(const Piece& piece, const PieceSink& sink) const override;
};

}  // namespace tovana::sentence_transformers
