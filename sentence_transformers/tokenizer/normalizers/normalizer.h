#pragma once

#include <memory>
#include <string>

namespace tovana::sentence_transformers {

/// A step that changes the characters of a text before it is cut into words.
///
/// Threads: immutable; any number may use one.
class Normalizer {
 public:
  Normalizer() = default;
  Normalizer(const Normalizer&) = delete;
  Normalizer& operator=(const Normalizer&) = delete;
  virtual ~Normalizer() = default;

  /// The text is well-formed UTF-8, before and afterwards.
  virtual void normalize(std::string& text) const = 0;
};

using NormalizerStep = std::unique_ptr<const Normalizer>;

}  // namespace tovana::sentence_transformers
