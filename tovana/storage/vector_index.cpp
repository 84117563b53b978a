#include "tovana/storage/vector_index.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <string>
#include <utility>

#include "tovana/exceptions/exceptions.h"

namespace tovana::storage {
namespace {

/// The dot product of two vectors of the same size. Independent sums let the compiler use the whole
/// width of the machine's registers, which one running sum would forbid.
double dot_product(std::span<const double> a, std::span<const double> b) noexcept {
  constexpr std::size_t kSums = 8;
  std::array<double, kSums> sums{};
  std::size_t index = 0;
  for (; index + kSums <= a.size(); index += kSums) {
    for (std::size_t lane = 0; lane < kSums; ++lane) {
      sums[lane] += a[index + lane] * b[index + lane];
    }
  }
  double total = 0;
  for (; index < a.size(); ++index) total += a[index] * b[index];
  for (const double sum : sums) total += sum;
  return total;
}

bool ranks_before(const EmbeddingIndex::Neighbour& a, const EmbeddingIndex::Neighbour& b) noexcept {
  return a.similarity != b.similarity ? a.similarity > b.similarity : a.id < b.id;
}

}  // namespace

EmbeddingIndex::EmbeddingIndex(std::size_t dimension) : _dimension(dimension) {
  if (dimension == 0) throw ValueError("an index holds vectors of at least 1 float, got: 0");
}

void EmbeddingIndex::add(std::int64_t id, std::span<const double> vector) {
  const std::vector<double> scaled = _unit(vector);
  const auto [entry, is_new] = _rows.try_emplace(id, _ids.size());
  if (!is_new) {
    std::ranges::copy(scaled, _row(entry->second).begin());
    return;
  }
  try {
    _ids.push_back(id);
    _vectors.insert(_vectors.end(), scaled.begin(), scaled.end());
  } catch (...) {
    _ids.resize(entry->second);
    _rows.erase(entry);
    throw;
  }
}

bool EmbeddingIndex::remove(std::int64_t id) {
  const auto entry = _rows.find(id);
  if (entry == _rows.end()) return false;
  // The last row moves into the gap.
  const std::size_t gap = entry->second;
  const std::size_t last = _ids.size() - 1;
  if (gap != last) {
    std::ranges::copy(_row(last), _row(gap).begin());
    _ids[gap] = _ids[last];
    _rows[_ids[gap]] = gap;
  }
  _rows.erase(entry);
  _ids.pop_back();
  _vectors.resize(_ids.size() * _dimension);
  return true;
}

std::vector<EmbeddingIndex::Neighbour> EmbeddingIndex::nearest(std::span<const double> query,
                                                               std::size_t count) const {
  const std::vector<double> direction = _unit(query);
  std::vector<Neighbour> neighbours;
  neighbours.reserve(_ids.size());
  const std::span<const double> vectors(_vectors);
  for (std::size_t index = 0; index < _ids.size(); ++index) {
    const double cosine = dot_product(direction, vectors.subspan(index * _dimension, _dimension));
    neighbours.push_back({_ids[index], std::clamp(cosine, -1.0, 1.0)});
  }
  count = std::min(count, neighbours.size());
  const auto end = neighbours.begin() + static_cast<std::ptrdiff_t>(count);
  std::partial_sort(neighbours.begin(), end, neighbours.end(), ranks_before);
  neighbours.erase(end, neighbours.end());
  return neighbours;
}

std::vector<double> EmbeddingIndex::_unit(std::span<const double> vector) const {
  if (vector.size() != _dimension) {
    throw ValueError("an index for vectors of " + std::to_string(_dimension) +
                     " floats was given one of " + std::to_string(vector.size()));
  }
  double largest = 0;
  for (std::size_t index = 0; index < vector.size(); ++index) {
    if (!std::isfinite(vector[index])) {
      throw ValueError("element " + std::to_string(index) + " of a vector for the index is " +
                       std::to_string(vector[index]) + ", not a finite number");
    }
    largest = std::max(largest, std::abs(vector[index]));
  }
  std::vector<double> scaled(vector.begin(), vector.end());
  if (largest == 0) return scaled;
  // First by a power of two near the largest element, exactly, so that no square overflows or
  // vanishes.
  const int exponent = std::ilogb(largest);
  for (double& element : scaled) element = std::scalbn(element, -exponent);
  const double norm = std::sqrt(dot_product(scaled, scaled));
  for (double& element : scaled) element /= norm;
  return scaled;
}

}  // namespace tovana::storage
