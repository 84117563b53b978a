#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <span>

namespace tovana::tool {

/// The cosine of the angle between two vectors of the same dimension, whatever their lengths; 0
/// where one of them is zero, and no number where one holds such a thing.
template <class Number>
double cosine(std::span<const Number> vector, std::span<const double> query) noexcept {
  double product = 0;
  double squares = 0;
  double query_squares = 0;
  for (std::size_t i = 0; i < query.size(); ++i) {
    product += double{vector[i]} * query[i];
    squares += double{vector[i]} * vector[i];
    query_squares += query[i] * query[i];
  }
  const double lengths = std::sqrt(squares * query_squares);
  return lengths == 0 ? 0 : std::clamp(product / lengths, -1.0, 1.0);
}

}  // namespace tovana::tool
