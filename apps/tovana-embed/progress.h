#pragma once

#include <cstddef>
#include <optional>

#include "progress_line.h"

namespace tovana::tool {

/// Says on the user's terminal how many of the texts are done, at which rate, and how much
/// time the others will take. One thread uses
/// it.
class Progress {
 public:
  /// `total` is null where nobody knows it yet. Nothing is said unless stderr is a terminal; nor if
  /// results are written to stdout meanwhile and that is a terminal, too.
  Progress(std::optional<std::size_t> total, bool writes_to_stdout);

  void advance(std::size_t texts);

 private:
  ProgressLine _line;
  std::optional<std::size_t> _total;
  bool _visible;
  double _start;
  std::size_t _done = 0;
};

}  // namespace tovana::tool
