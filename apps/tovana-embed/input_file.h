#pragma once

#include <string>

#include "run_limits.h"

namespace tovana::tool {

/// The path that stands for standard input or output.
inline constexpr const char* kStandardStream = "-";

/// What messages call an input: its path, or "standard input".
std::string input_name(const std::string& path);

/// Everything that a file, a pipe or (for "-") standard input holds. Blocks until its end, the
/// deadline or an interrupt, whichever comes first; a pipe that nobody has opened yet counts as not
/// at its end. Tells on stderr what it waits for when that is the user's terminal. Throws Failure
/// (no_input) when it cannot be read, and as RunLimits::check does.
std::string read_input(const std::string& path, const RunLimits& limits);

}  // namespace tovana::tool
