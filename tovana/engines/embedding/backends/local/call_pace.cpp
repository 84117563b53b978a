#include "tovana/engines/embedding/backends/local/call_pace.h"

#include <algorithm>

namespace tovana::embedding {
namespace {

/// A run ends within a quarter of a second. Shorter calls cost throughput, since the threads that
/// finish their share of one wait for the others: 4 percent at an eighth, 1 at a fifth.
constexpr double kTargetS = 0.2;
constexpr double kShortestS = 1e-4;  // below the clock's trust
/// One call in haste, the machine's or the texts', must not make the next one endless.
constexpr double kMostGrowth = 4;

/// In bytes. A model reads no more of a text than fits it, and adds tokens of its own to each.
double work_of(const std::string& text) {
  constexpr std::size_t kMostRead = 2048;
  constexpr std::size_t kAdded = 8;
  return static_cast<double>(std::min(text.size(), kMostRead) + kAdded);
}

}  // namespace

std::size_t CallPace::next(std::span<const std::string> left) const {
  std::size_t count = 1;
  for (double work = work_of(left.front()); count < left.size(); ++count) {
    work += work_of(left[count]);
    if (work > _most_work) break;
  }
  return count;
}

void CallPace::took(std::span<const std::string> texts, double seconds) {
  double work = 0;
  for (const std::string& text : texts) work += work_of(text);
  const double at_this_pace = work / std::max(seconds, kShortestS) * kTargetS;
  _most_work = std::min(at_this_pace, kMostGrowth * std::max(_most_work.load(), work));
}

}  // namespace tovana::embedding
