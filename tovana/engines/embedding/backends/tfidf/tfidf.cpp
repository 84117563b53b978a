#include "tovana/engines/embedding/backends/tfidf/tfidf.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>

#include "tovana/engines/embedding/backends/tfidf/code_tokens.h"
#include "tovana/engines/embedding/backends/tfidf/term_hash.h"
#include "tovana/engines/embedding/backends/tfidf/term_table.h"

namespace tovana::embedding {
namespace {

/// Keeps the count of a term within 32 bits: a shorter text has fewer occurrences, of two bytes at
/// least.
constexpr std::size_t kLongestText = std::size_t{8} << 30;

using TermNumber = TermTable::TermNumber;

/// How often each distinct term of each text of a batch occurs, and in how many texts it does.
class TermCounts {
 public:
  struct Count {
    TermNumber term;
    std::uint32_t count;
  };

  explicit TermCounts(const std::vector<std::string>& texts) {
    _ends.reserve(texts.size());
    for (const std::string& text : texts) _add(text);
  }

  const TermTable& terms() const noexcept { return _terms; }
  std::size_t texts_with(TermNumber term) const noexcept { return _seen[term].texts; }

  /// The distinct terms of a text in the order of their first occurrence.
  std::span<const Count> of_text(std::size_t text) const noexcept {
    const std::size_t begin = text == 0 ? 0 : _ends[text - 1];
    return std::span(_counts).subspan(begin, _ends[text] - begin);
  }

 private:
  struct Seen {
    std::size_t last = 0;   ///< Where in _counts the last text that has it counts it.
    std::size_t texts = 0;  ///< How many texts have it.
  };

  void _add(const std::string& text) {
    if (text.size() > kLongestText) {
      throw std::length_error("cannot embed a text of " + std::to_string(text.size()) +
                              " bytes: the limit is 8 GiB");
    }
    const std::size_t begin = _counts.size();
    _tokenizer.for_each_term(text, [this, begin](std::string_view word) {
      const TermNumber term = _terms.intern(word);
      if (term == _seen.size()) _seen.emplace_back();
      Seen& seen = _seen[term];
      if (seen.texts > 0 && seen.last >= begin) {
        ++_counts[seen.last].count;
      } else {
        seen.last = _counts.size();
        ++seen.texts;
        _counts.push_back({term, 1});
      }
    });
    _ends.push_back(_counts.size());
  }

  CodeTokenizer _tokenizer;
  TermTable _terms;
  std::vector<Seen> _seen;         ///< By term.
  std::vector<Count> _counts;      ///< Of all the texts, one behind another.
  std::vector<std::size_t> _ends;  ///< Where in _counts each text ends.
};

/// What a term contributes to a vector, but for its count: where, and with which factor.
struct Weight {
  std::size_t bucket;
  double signed_idf;
};

std::vector<Weight> weigh(const TermCounts& counts, std::size_t text_count, std::size_t dimension) {
  const TermTable& terms = counts.terms();
  TermHasher hasher;
  std::vector<Weight> weights;
  weights.reserve(terms.size());
  for (TermNumber term = 0; term < terms.size(); ++term) {
    const TermHash hash = hasher(terms.term(term));
    const double ratio =
        static_cast<double>(text_count + 1) / static_cast<double>(counts.texts_with(term) + 1);
    weights.push_back({hash.bucket_hash % dimension, hash.sign * (std::log(ratio) + 1)});
  }
  return weights;
}

/// Fills vectors of one dimension. A text has few terms and a vector many elements, so it remembers
/// which elements were touched and scales only those.
class VectorFiller {
 public:
  explicit VectorFiller(std::size_t dimension) : _touched((dimension + 63) / 64) {}

  void fill(Vector& vector, std::span<const TermCounts::Count> counts,
            std::span<const Weight> weights) {
    for (const auto& [term, count] : counts) {
      const Weight& weight = weights[term];
      const double tf = count == 1 ? 1.0 : 1.0 + std::log(static_cast<double>(count));
      vector[weight.bucket] += tf * weight.signed_idf;
      _touched[weight.bucket / 64] |= std::uint64_t{1} << (weight.bucket % 64);
    }
    // In index order, and elements that are not touched would add exactly 0: the same sum, bit for
    // bit, as over the whole vector.
    double squares = 0;
    _for_each_touched([&](std::size_t index) { squares += vector[index] * vector[index]; });
    const double norm = std::sqrt(squares);
    if (norm > 0) {
      _for_each_touched([&](std::size_t index) { vector[index] /= norm; });
    }
    std::ranges::fill(_touched, 0);
  }

 private:
  template <class Visit>
  void _for_each_touched(Visit&& visit) const {
    for (std::size_t word = 0; word < _touched.size(); ++word) {
      for (std::uint64_t bits = _touched[word]; bits != 0; bits &= bits - 1) {
        visit(64 * word + static_cast<std::size_t>(std::countr_zero(bits)));
      }
    }
  }

  std::vector<std::uint64_t> _touched;  ///< One bit an element; all clear between texts.
};

}  // namespace

std::vector<Vector> TFIDFEmbeddingBackend::embed(const std::vector<std::string>& texts) {
  if (texts.empty() || _dimension < 1) return std::vector<Vector>(texts.size());
  const auto dimension = static_cast<std::size_t>(_dimension);
  if (dimension > Vector().max_size()) {
    throw std::length_error("no vector has " + std::to_string(dimension) + " elements");
  }
  const TermCounts counts(texts);
  const std::vector<Weight> weights = weigh(counts, texts.size(), dimension);
  VectorFiller filler(dimension);
  std::vector<Vector> vectors;
  vectors.reserve(texts.size());
  for (std::size_t text = 0; text < texts.size(); ++text) {
    filler.fill(vectors.emplace_back(dimension), counts.of_text(text), weights);
  }
  return vectors;
}

std::vector<std::string> TFIDFEmbeddingBackend::_tokenize(std::string_view text) const {
  std::vector<std::string> tokens;
  CodeTokenizer().for_each_term(text, [&](std::string_view term) { tokens.emplace_back(term); });
  return tokens;
}

std::string TFIDFEmbeddingBackend::_stem(std::string_view word) {
  return std::string(word.substr(0, stem_size(word, count_characters(word))));
}

}  // namespace tovana::embedding
