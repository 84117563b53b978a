#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "tovana/base/export.h"

namespace tovana::storage {

/// An in-memory index of vectors for exact search by cosine similarity: every search looks at every
/// vector.
///
/// A zero vector has no direction: it is stored, and its similarity to anything is 0, as is that of
/// anything to a query that is zero.
///
/// Threads: none of its own, no lock; one owner uses it, or its users take turns.
class TOVANA_API EmbeddingIndex {
 public:
  struct Neighbour {
    std::int64_t id;
    double similarity;  ///< Cosine, from -1 to 1.
  };

  /// For vectors of `dimension` floats, at least 1. Throws ValueError otherwise.
  explicit EmbeddingIndex(std::size_t dimension);

  std::size_t dimension() const noexcept { return _dimension; }
  std::size_t size() const noexcept { return _ids.size(); }

  /// Stores a vector of `dimension` floats of any length under an id, in place of the one stored
  /// there before. Throws ValueError for another number of floats or one that is not finite; the
  /// index is then unchanged.
  void add(std::int64_t id, std::span<const double> vector);

  /// Forgets a vector. Returns whether there was one.
  bool remove(std::int64_t id);

  /// The `count` vectors most similar to the query (all, if there are fewer), best first; equal
  /// ones by ascending id. Throws ValueError as `add` does.
  std::vector<Neighbour> nearest(std::span<const double> query, std::size_t count) const;

 private:
  /// The vector in unit length, or zero; checks it as `add` says.
  std::vector<double> _unit(std::span<const double> vector) const;

  std::span<double> _row(std::size_t index) noexcept {
    return std::span(_vectors).subspan(index * _dimension, _dimension);
  }

  std::size_t _dimension;
  std::vector<double>
      _vectors;  ///< `[size x dimension]`, unit length or zero; row i belongs to _ids[i].
  std::vector<std::int64_t> _ids;
  std::unordered_map<std::int64_t, std::size_t> _rows;  ///< The row of each id.
};

}  // namespace tovana::storage
