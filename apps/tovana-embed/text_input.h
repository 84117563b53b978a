#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "run_limits.h"

namespace tovana::tool {

/// Where a command's texts come from.
struct InputArguments {
  std::string file = "-";
  bool jsonl = false;
};

/// The texts of a run, in the order of the input.
struct InputTexts {
  std::vector<std::string> texts;  ///< Well-formed UTF-8.
  std::vector<std::string>
      members;  ///< With --jsonl: what JsonRecord keeps of each object; else empty.
  std::vector<std::size_t> lines;  ///< The line of each text, from 1; for arguments, their number.
  std::string unit = "line";       ///< What `lines` counts: "line", or "text" for arguments.
};

void add_input_options(CLI::App& command, InputArguments& arguments);

/// Reads and checks the whole input, so that an error in its last line costs no work on the others.
///
/// A text is a line without its line end: LF, or CR LF. An empty line is an empty text; behind the
/// last line end there is no further line. With --jsonl each line is an object, and lines of white
/// space are passed over. A byte order mark at the start is dropped. Ill-formed UTF-8 becomes
/// U+FFFD, and one warning on stderr says how many lines had it.
///
/// `replaced` is the member of such an object that the command writes anew. Blocks and throws as
/// `read_input` does; throws Failure (bad_data) for a line that is not such an
/// object.
InputTexts read_texts(const InputArguments& arguments, std::string_view replaced,
                      const RunLimits& limits);

/// The texts of the command line: each argument is one, whatever it holds.
InputTexts texts_of_arguments(std::vector<std::string> arguments);

}  // namespace tovana::tool
