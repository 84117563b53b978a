#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace tovana::tool {

/// Something that was found, and the cosine of the angle between its vector and the query's.
struct Hit {
  std::int64_t number;
  double score;
};

/// The better one has the higher score, and of equal ones the lower number.
bool is_better(const Hit& a, const Hit& b) noexcept;

/// Which of all hits a search is after.
struct Wanted {
  std::size_t top = 10;
  /// The lowest score. Unless told otherwise, that is any above 0: what has 0 has nothing in common
  /// with the query.
  double min_score = std::numeric_limits<double>::denorm_min();
};

/// The wanted ones of the hits that it is offered. No score is offered that is no number.
class Ranking {
 public:
  explicit Ranking(const Wanted& wanted) : _wanted(wanted), _lowest(wanted.min_score) {}

  void offer(const Hit& hit) {
    if (hit.score >= _lowest) _take(hit);
  }

  /// Best first; nothing is offered afterwards.
  std::vector<Hit> take_best();

 private:
  void _take(const Hit& hit);

  Wanted _wanted;
  double _lowest;          ///< What is worth a closer look.
  std::vector<Hit> _hits;  ///< A heap, the worst one first.
};

}  // namespace tovana::tool
