#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "run_limits.h"

namespace tovana::tool {

/// The results of a command, buffered, on their way to standard output or a file.
///
/// A file appears whole or not at all: what is written goes to another one in the same directory,
/// which takes the name in `finish`, and has none before that where the file system has such files.
/// Without `finish` it is removed and an earlier file of that name stays. A symbolic link is followed; what is no regular file (a device, a pipe) is written
/// to as it is.
///
/// Operations throw Failure (cannot_write), ClosedPipe when the reader has gone, and Interrupted.
/// They block for as long as the reader does.
class Output {
 public:
  /// "-" is standard output. Throws at once when the place cannot be written to. `limits` outlives
  /// it.
  Output(std::string path, const RunLimits& limits);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void write(std::string_view bytes);

  /// Room for `size` bytes behind what was written, for those who make their bytes in place;
  /// `advance(end)` then counts those before `end` as written.
  char* room(std::size_t size);
  void advance(const char* end) noexcept { _used = static_cast<std::size_t>(end - _buffer.get()); }

  /// What was written so far is of use by itself: on standard output it appears even when the
  /// command fails later, and what comes after it only with the next such end.
  void end_line() noexcept { _line_end = _used; }

  /// Writes what is left and gives the file its name. Nothing is written afterwards.
  void finish();

 private:
  void _open_file();
  void _open_unfinished();
  void _finish_file();
  /// Has `make` make a file in the target's directory, by names until nothing else has it. Returns
  /// its path.
  std::string _make_unfinished(const std::function<bool(const char* path)>& make) const;
  /// Writes the first `size` bytes of the buffer.
  void _flush(std::size_t size);
  [[noreturn]] void throw_unwritable(int error_number) const;
  [[noreturn]] void throw_unwritable(const std::string& reason, bool is_full = false) const;

  std::string _path;
  const RunLimits& _limits;
  int _descriptor = -1;
  std::string _target;  ///< Where `finish` moves the unfinished file; empty when there is none.
  std::unique_ptr<char[]> _buffer;
  std::size_t _capacity;
  std::size_t _used = 0;
  std::size_t _line_end = 0;  ///< In the buffer; 0: no line has ended in it.
};

/// Removes the unfinished file of whichever Output is open, and keeps it and later ones from
/// finishing. For the thread that ends the process.
void discard_unfinished_output() noexcept;

}  // namespace tovana::tool
