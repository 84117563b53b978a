#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

namespace tovana::python {

/// How much a model embeds in one go. It ends by itself only, so it must not take long: signals, the
/// stop test and the time are looked at in between. The size follows the pace of what was embedded
/// before. Any thread may call it.
class Pace {
 public:
  /// How many of the texts from number `first` on, at least one, are embedded in one go.
  std::size_t next(const std::vector<std::string>& texts, std::size_t first) const {
    std::size_t end = first + 1;
    for (double work = _work_of(texts[first]); end < texts.size(); ++end) {
      work += _work_of(texts[end]);
      if (work > _most_work) break;
    }
    return end - first;
  }

  /// That these texts took so long.
  void took(const std::vector<std::string>& texts, double seconds) {
    double work = 0;
    for (const std::string& text : texts) work += _work_of(text);
    const double at_this_pace = work / std::max(seconds, kShortestS) * kTargetS;
    _most_work = std::min(at_this_pace, kMostGrowth * std::max(_most_work.load(), work));
  }

 private:
  /// Ctrl-C ends a call within a quarter of a second.
  static constexpr double kTargetS = 0.2;
  static constexpr double kShortestS = 1e-4;  // below the clock's trust
  /// One call in haste, the machine's or the texts', must not make the next one endless.
  static constexpr double kMostGrowth = 4;

  /// In bytes. A model reads no more of a text than fits it, and adds tokens of its own to each.
  static double _work_of(const std::string& text) {
    constexpr std::size_t kMostRead = 2048;
    constexpr std::size_t kAdded = 8;
    return static_cast<double>(std::min(text.size(), kMostRead) + kAdded);
  }

  std::atomic<double> _most_work = 0;  ///< At first a text alone says how fast the model is.
};

}  // namespace tovana::python
