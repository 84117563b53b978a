#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tovana/base/export.h"
#include "tovana/engines/embedding/backends/backend.h"
#include "tovana/engines/embedding/settings.h"

namespace tovana::embedding {

/// Embeds texts by hashing TF-IDF: no vocabulary, no model, nothing learnt or kept between calls.
/// It needs nothing installed and serves every text; the quality is fair on code and its
/// descriptions.
///
/// A text is split by a code-aware tokenizer (camelCase, snake_case, separators) and stemmed
/// lightly. Each distinct term adds  sign(term) * (1 + ln tf) * (ln((n + 1) / (df + 1)) + 1)  to
/// the element that its hash selects (the hashing trick with signed buckets: Weinberger et al.,
/// "Feature Hashing for Large Scale Multitask Learning", ICML 2009), with `tf` the term's count in
/// the text, `n` the number of texts in the batch and `df` the number of them that hold the term.
/// The vector is then scaled to unit length.
///
/// - The inverse document frequency is that of the batch: a text's vector depends on the other
///   texts of its batch, and a text embedded alone gets pure term frequencies.
/// - A text without terms (empty, only white space or separators, only one-character words) gives
///   the zero vector, and so does one whose terms cancel.
/// - The same batch and dimension give the same vectors, bit for bit, in every instance and
///   process.
/// - A dimension below 1 leaves no element to put a term in: every vector is empty.
/// - Case, white space and the length of words are Unicode's, whatever the process's locale.
///   Ill-formed UTF-8 is read as U+FFFD.
///
/// Threads: no state changes after construction; any operation may run on any number of threads.
/// Memory beyond texts and vectors: about 100 bytes for each distinct term of the batch and 8 for
/// each distinct term of each text, and up to eight times the longest stretch without white space.
class TOVANA_API TFIDFEmbeddingBackend final : public EmbeddingBackend {
 public:
  explicit TFIDFEmbeddingBackend(std::int64_t dimension = DEFAULT_TFIDF_DIMENSION)
      : _dimension(dimension) {}

  /// "tfidf".
  const std::string& name() const noexcept override { return _name; }
  std::int64_t dimension() const noexcept override { return _dimension; }

  /// `[texts.size() x max(dimension, 0)]`; no texts cost nothing, whatever the dimension. Blocks
  /// while it computes. Throws
  /// - std::bad_alloc or std::length_error when memory does not suffice;
  /// - std::length_error for a text of more than 8 GiB, and for more than 2^32 - 1 distinct terms;
  /// - RuntimeError when libcrypto offers no MD5, which spreads the terms.
  std::vector<Vector> embed(const std::vector<std::string>& texts) override;

  /// Nothing to load.
  void warm_up() override {}

  /// The stemmed tokens of a text, in order, duplicates kept.
  std::vector<std::string> _tokenize(std::string_view text) const;

  /// Lightweight suffix-stripping stemmer, for a word in lower case: the word without the first of
  /// a list of suffixes that it ends with and that leaves at least three characters. Words of fewer
  /// than five characters stay as they are.
  static std::string _stem(std::string_view word);

 private:
  std::int64_t _dimension;
  std::string _name = "tfidf";
};

}  // namespace tovana::embedding
