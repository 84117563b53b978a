#pragma once

#include <string>
#include <utility>

#include "sentence_transformers/tokenizer/expression.h"
#include "sentence_transformers/tokenizer/normalizers/normalizer.h"

/// The normalizers that are a line or two.
namespace tovana::sentence_transformers {

/// Lower-cases each character by itself: a final sigma is like any other.
class Lowercase final : public Normalizer {
 public:
  void normalize(std::string& text) const override;
};

/// Drops the non-spacing marks; a letter that has its accent in it keeps it.
class StripAccents final : public Normalizer {
 public:
  void normalize(std::string& text) const override;
};

/// Takes white space off the ends.
class Strip final : public Normalizer {
 public:
  Strip(bool left, bool right) noexcept : _left(left), _right(right) {}

  void normalize(std::string& text) const override;

 private:
  bool _left;
  bool _right;
};

/// Puts some text in front of one that is not empty.
class Prepend final : public Normalizer {
 public:
  explicit Prepend(std::string prefix) : _prefix(std::move(prefix)) {}

  void normalize(std::string& text) const override;

 private:
  std::string _prefix;
};

/// Replaces all that an expression matches.
class Replace final : public Normalizer {
 public:
  Replace(Expression pattern, std::string content)
      : _pattern(std::move(pattern)), _content(std::move(content)) {}

  void normalize(std::string& text) const override;

 private:
  Expression _pattern;
  std::string _content;
};

/// What Google's tables for translation do: drops controls, and makes some others spaces.
class Nmt final : public Normalizer {
 public:
  void normalize(std::string& text) const override;
};

}  // namespace tovana::sentence_transformers
