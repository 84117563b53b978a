#pragma once

#include <cstddef>

namespace tovana::tool {

/// One line on the user's terminal that says how far the work is: texts done, of how many, at which
/// rate. Drawn a few times a second and gone in the end. One thread uses it.
class Progress {
 public:
  /// Nothing is drawn unless stderr is a terminal; nor if results are written to stdout meanwhile
  /// and that is a terminal, too.
  Progress(std::size_t total, bool writes_to_stdout);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void advance(std::size_t texts);

 private:
  void draw(double now);

  std::size_t _total;
  bool _visible;
  double _start;
  double _next_drawing;
  std::size_t _done = 0;
};

}  // namespace tovana::tool
