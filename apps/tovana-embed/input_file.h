#pragma once

#include <string>

#include <sys/types.h>

#include "run_limits.h"

namespace tovana::tool {

/// The path that stands for standard input or output.
inline constexpr const char* kStandardStream = "-";

/// What messages call an input: its path, or "standard input".
std::string input_name(const std::string& path);

/// What a file, a pipe or (for "-") standard input holds, read piece by piece. Used by one thread.
class InputFile {
 public:
  /// Tells on stderr what it waits for when that is the user's terminal. Throws Failure (no_input)
  /// when it cannot be read. `limits` outlives it.
  InputFile(std::string path, const RunLimits& limits);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  /// Appends the next bytes to `content`; false at the end. Blocks until there are some; a pipe that
  /// nobody has opened yet is not at its end. Throws Failure (no_input), and as RunLimits::check.
  bool read(std::string& content);

  /// Goes back to where it began to read, as only a regular file can: false for all else.
  bool rewind();

 private:
  const std::string _path;
  const RunLimits& _limits;
  const int _descriptor;
  off_t _start = -1;  ///< Where a regular file began to be read.
};

}  // namespace tovana::tool
