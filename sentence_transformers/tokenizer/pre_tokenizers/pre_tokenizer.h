#pragma once

#include <functional>
#include <memory>
#include <string_view>

namespace tovana::sentence_transformers {

/// A part of a text on its way to the model.
struct Piece {
  std::string_view text;     ///< Well-formed UTF-8.
  bool begins_text = false;  ///< It stands at the very beginning of what was given.
};

/// Takes a piece, which is valid during the call; false: no more are wanted.
using PieceSink = std::function<bool(const Piece&)>;

/// A step that cuts a piece into smaller ones, down to the words that the model gets.
///
/// Threads: immutable; any number may use one.
class PreTokenizer {
 public:
  PreTokenizer() = default;
  PreTokenizer(const PreTokenizer&) = delete;
  PreTokenizer& operator=(const PreTokenizer&) = delete;
  virtual ~PreTokenizer() = default;

  /// Gives `sink` the parts that are not empty, in order. Ends early when it returns false, and
  /// then returns false.
  virtual bool split(const Piece& piece, const PieceSink& sink) const = 0;
};

using PreTokenizerStep = std::unique_ptr<const PreTokenizer>;

}  // namespace tovana::sentence_transformers
