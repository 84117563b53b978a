#pragma once

#include <atomic>
#include <cstddef>
#include <span>
#include <string>

namespace tovana::embedding {

/// How many texts go into the next call of a model that computes in this process. Such a call ends
/// by itself only, so it must not take long: deadlines, stop tests and the user's wish to end are
/// looked at between calls. The size follows the pace of the calls before.
///
/// Threads: any operation on any number of threads at once.
class CallPace {
 public:
  /// How many of the texts that are left, of which there is one, the next call takes: at least one.
  std::size_t next(std::span<const std::string> left) const;

  /// That a call with these texts took so many seconds.
  void took(std::span<const std::string> texts, double seconds);

 private:
  std::atomic<double> _most_work =
      0;  ///< Of a call. At first a text alone says how fast the model is.
};

}  // namespace tovana::embedding
