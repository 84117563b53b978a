#pragma once

#include <cstddef>
#include <exception>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "input_file.h"
#include "json_record.h"
#include "run_limits.h"

namespace tovana::tool {

/// Where a command's texts come from.
struct InputArguments {
  std::string file = "-";
  bool jsonl = false;
  RecordMembers members;  ///< What is read of an object.
};

/// The texts of a run, or the next ones of them, in the order of the input.
struct InputTexts {
  std::vector<std::string> texts;  ///< Well-formed UTF-8.
  std::vector<std::string>
      members;  ///< With --jsonl: what JsonRecord keeps of each object; else empty.
  std::vector<std::string> ids;    ///< With --jsonl and where there is one: the id of each.
  std::vector<std::size_t> lines;  ///< The line of each text, from 1; for arguments, their number.
  std::string unit = "line";       ///< What `lines` counts: "line", or "text" for arguments.
  bool is_whole = true;            ///< Whether the input has no other texts.
};

void add_input_options(CLI::App& command, InputArguments& arguments);

/// Counts what had to be repaired, for one warning.
class Utf8Repair {
 public:
  /// The text with U+FFFD for what is no UTF-8.
  std::string repaired(std::string_view text, std::size_t line);

  /// `where` holds the texts, and each is a `unit`. Says nothing when none was repaired.
  void warn(const std::string& where, const std::string& unit) const;

 private:
  std::size_t _count = 0;
  std::size_t _first = 0;
};

/// Reads texts as they are wanted, and keeps no more of the input than that. Used by one thread.
///
/// A text is a line without its line end: LF, or CR LF. An empty line is an empty text; behind the
/// last line end there is no further line. With --jsonl each line is an object, and lines of white
/// space are passed over, as are the notes of universal-ctags. A byte order mark at the start is
/// dropped. Ill-formed UTF-8 becomes U+FFFD, and one warning on stderr, when the end is reached
/// first, says how many lines had it.
class TextReader {
 public:
  /// `replaced` are the members of such an object that the command writes anew. Throws as InputFile
  /// does; both `arguments` and `limits` outlive it.
  TextReader(const InputArguments& arguments, std::vector<std::string> replaced,
             const RunLimits& limits);

  static constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

  /// The next texts: `most` of them, or those up to the end. Blocks and throws as InputFile::read;
  /// throws Failure (bad_data) for UTF-16, and for a line that is not such an object, when those
  /// before it have been given, unless all were asked for.
  InputTexts read(std::size_t most = kAll);

  /// Reads and checks all of a regular file, so that an error in its last line costs no work on the
  /// others, and how many texts it has; `read` then begins with the first. Null, and nothing is
  /// read, for an input that can be read only once.
  std::optional<std::size_t> count();

 private:
  /// The next line, without its end, until another is asked for.
  std::optional<std::string_view> _next_line();
  void _append(std::string_view line, InputTexts& texts);

  const InputArguments& _arguments;
  const std::vector<std::string> _replaced;
  const RunLimits& _limits;
  InputFile _file;
  std::string _content;     ///< The part of the input that is being split into lines,
  std::size_t _begin = 0;   ///< and where in it the next one begins.
  std::size_t _number = 0;  ///< Of the line that was taken last.
  bool _is_at_end = false;
  bool _has_warned = false;
  Utf8Repair _repair;
  std::exception_ptr _fault;  ///< What the next `read` throws.
};

/// The texts of the command line: each argument is one, whatever it holds.
InputTexts texts_of_arguments(std::vector<std::string> arguments);

}  // namespace tovana::tool
