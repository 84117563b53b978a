#include "ranking.h"

#include <algorithm>
#include <utility>

namespace tovana::tool {

bool is_better(const Hit& a, const Hit& b) noexcept {
  return a.score != b.score ? a.score > b.score : a.number < b.number;
}

void Ranking::_take(const Hit& hit) {
  if (_hits.size() == _wanted.top) {
    if (!is_better(hit, _hits.front())) return;
    std::ranges::pop_heap(_hits, is_better);
    _hits.pop_back();
  }
  _hits.push_back(hit);
  std::ranges::push_heap(_hits, is_better);
  if (_hits.size() == _wanted.top) _lowest = _hits.front().score;
}

std::vector<Hit> Ranking::take_best() {
  std::ranges::sort_heap(_hits, is_better);
  return std::move(_hits);
}

}  // namespace tovana::tool
