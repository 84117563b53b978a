#include "text_input.h"

#include <string_view>
#include <utility>

#include "failure.h"
#include "input_file.h"
#include "json_record.h"
#include "tovana/base/text.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::tool {
namespace {

/// Repairs texts and counts them for one warning at the end.
class Utf8Repair {
 public:
  std::string repaired(std::string_view text, std::size_t line) {
    if (is_ascii(text) || is_well_formed_utf8(text)) return std::string(text);
    if (_count++ == 0) _first = line;
    return repair_utf8(text);
  }

  /// `where` holds the texts, and each is a `unit`.
  void warn(const std::string& where, const std::string& unit) const {
    if (_count == 0) return;
    const std::string which = _count == 1
                                  ? unit + " " + std::to_string(_first) + " is"
                                  : std::to_string(_count) + " " + unit + "s (the first is " +
                                        unit + " " + std::to_string(_first) + ") are";
    report("warning: " + where + ": " + which +
           " not UTF-8; what could not be read became U+FFFD, convert the text to keep it");
  }

 private:
  std::size_t _count = 0;
  std::size_t _first = 0;
};

/// The next line of `rest`, which is not empty, without its line end; `rest` begins behind it
/// afterwards.
std::string_view take_line(std::string_view& rest) {
  const std::size_t end = rest.find('\n');
  if (end == std::string_view::npos) return std::exchange(rest, {});
  const std::string_view line = rest.substr(0, end);
  rest.remove_prefix(end + 1);
  return line.ends_with('\r') ? line.substr(0, line.size() - 1) : line;
}

JsonRecord record_of(const std::string& line, std::string_view replaced, std::size_t number,
                     const std::string& file) {
  try {
    return parse_json_record(line, replaced);
  } catch (const ValueError& error) {
    throw Failure(ExitStatus::bad_data,
                  input_name(file) + ", line " + std::to_string(number) + ": " + error.what() +
                      "; --jsonl takes one object a line, such as {\"text\":\"…\"}");
  }
}

}  // namespace

void add_input_options(CLI::App& command, InputArguments& arguments) {
  command
      .add_option("--input", arguments.file,
                  "Read the texts from FILE, one a line; - is standard\n"
                  "input (the default)")
      ->option_text("FILE");
  command
      .add_flag("--jsonl", arguments.jsonl,
                "Each line of the input is a JSON object, and its member\n"
                "\"text\" is the text")
      ->option_text(" ");
}

InputTexts read_texts(const InputArguments& arguments, std::string_view replaced,
                      const RunLimits& limits) {
  const std::string content = read_input(arguments.file, limits);
  std::string_view rest = content;
  if (rest.starts_with(utf8::kByteOrderMark)) rest.remove_prefix(utf8::kByteOrderMark.size());

  InputTexts input;
  Utf8Repair repair;
  for (std::size_t number = 1; !rest.empty(); ++number) {
    limits.check();
    const std::string_view line = take_line(rest);
    if (!arguments.jsonl) {
      input.texts.push_back(repair.repaired(line, number));
    } else if (line.find_first_not_of(" \t\r") == std::string_view::npos) {
      continue;
    } else {
      JsonRecord record =
          record_of(repair.repaired(line, number), replaced, number, arguments.file);
      input.texts.push_back(std::move(record.text));
      input.members.push_back(std::move(record.members));
    }
    input.lines.push_back(number);
  }
  repair.warn(input_name(arguments.file), input.unit);
  return input;
}

InputTexts texts_of_arguments(std::vector<std::string> arguments) {
  InputTexts input;
  input.unit = "text";
  Utf8Repair repair;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    input.texts.push_back(repair.repaired(arguments[i], i + 1));
    input.lines.push_back(i + 1);
  }
  repair.warn("the command line", input.unit);
  return input;
}

}  // namespace tovana::tool
