#pragma once

#include <cstddef>
#include <string>

namespace tovana::tool {

/// The line on stderr that says how far some work is. On a terminal it is the bottom line, drawn
/// again and again and gone in the end; elsewhere it is said in a line of its own each time, and
/// seldom. One thread at a time uses it.
class ProgressLine {
 public:
  ProgressLine() = default;
  ~ProgressLine() { clear(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  bool is_on_terminal() const noexcept { return _is_on_terminal; }
  /// Of the terminal, in columns, at the moment.
  static std::size_t width() noexcept;

  /// The work begins: on a terminal the line is due at once, elsewhere after ten seconds. Times are
  /// points of one clock, in seconds.
  void begin(double now) noexcept;
  /// Whether it is time to say how far the work is. If so, the next time comes a tenth of a second
  /// later, and ten seconds where it is no terminal.
  bool comes_due(double now) noexcept;

  /// Says it. On a terminal the text never reaches the edge, however narrow that has become: a line
  /// that goes on in the next row could not be overwritten, and every drawing would leave one
  /// behind. What is not ASCII is shown there as "?", so that columns can be counted.
  void show(std::string text);
  /// Writes a line that stays, in place of the one that is drawn.
  void write(const std::string& line);
  void clear();

 private:
  static bool _stderr_is_terminal() noexcept;

  bool _is_on_terminal = _stderr_is_terminal();
  bool _is_drawn = false;
  double _next_time = 0;
};

}  // namespace tovana::tool
