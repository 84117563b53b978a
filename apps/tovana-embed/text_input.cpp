#include "text_input.h"

#include <optional>
#include <string_view>
#include <utility>

#include "failure.h"
#include "json_record.h"
#include "option_values.h"
#include "tovana/base/text.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::tool {
namespace {

std::optional<JsonRecord> record_of(const std::string& line, const InputArguments& arguments,
                                    const std::vector<std::string>& replaced, std::size_t number) {
  try {
    return parse_json_record(line, arguments.members, replaced);
  } catch (const ValueError& error) {
    throw Failure(ExitStatus::bad_data,
                  input_name(arguments.file) + ", line " + std::to_string(number) + ": " +
                      error.what() + "; --jsonl takes one object a line, such as {\"text\":\"…\"}");
  }
}

}  // namespace

std::string Utf8Repair::repaired(std::string_view text, std::size_t line) {
  if (is_ascii(text) || is_well_formed_utf8(text)) return std::string(text);
  if (_count++ == 0) _first = line;
  return repair_utf8(text);
}

void Utf8Repair::warn(const std::string& where, const std::string& unit) const {
  if (_count == 0) return;
  const std::string which = _count == 1 ? unit + " " + std::to_string(_first) + " is"
                                        : std::to_string(_count) + " " + unit + "s (the first is " +
                                              unit + " " + std::to_string(_first) + ") are";
  report("warning: " + where + ": " + which +
         " not UTF-8; what could not be read became U+FFFD, convert the text to keep it");
}

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
  add_names(command, "--text-member", arguments.members.text,
            "With --jsonl: NAME in place of \"text\". Given again, the\n"
            "texts of all of them that an object has, with a space\n"
            "between two")
      ->needs("--jsonl");
}

TextReader::TextReader(const InputArguments& arguments, std::vector<std::string> replaced,
                       const RunLimits& limits)
    : _arguments(arguments),
      _replaced(std::move(replaced)),
      _limits(limits),
      _file(arguments.file, limits) {}

InputTexts TextReader::read(std::size_t most) {
  if (_fault) std::rethrow_exception(_fault);
  InputTexts texts;
  texts.is_whole = _number == 0;
  while (texts.texts.size() < most) {
    _limits.check();
    const std::optional<std::string_view> line = _next_line();
    if (!line) {
      if (!std::exchange(_has_warned, true)) _repair.warn(input_name(_arguments.file), texts.unit);
      return texts;
    }
    try {
      _append(*line, texts);
    } catch (const Failure&) {
      if (texts.texts.empty() || most == kAll) throw;
      // What came before it is not lost: the next call fails.
      _fault = std::current_exception();
      break;
    }
  }
  texts.is_whole = false;  // more may follow
  return texts;
}

std::optional<std::size_t> TextReader::count() {
  if (!_file.rewind()) return std::nullopt;
  constexpr std::size_t kAtATime = 1024;
  std::size_t total = 0;
  for (std::size_t size = 1; size > 0; total += size) size = read(kAtATime).texts.size();
  _file.rewind();
  _content.clear();
  _begin = 0;
  _number = 0;
  _is_at_end = false;
  return total;
}

std::optional<std::string_view> TextReader::_next_line() {
  std::size_t end = _content.find('\n', _begin);
  while (end == std::string::npos && !_is_at_end) {
    _content.erase(0, std::exchange(_begin, 0));
    const std::size_t searched = _content.size();
    _is_at_end = !_file.read(_content);
    end = _content.find('\n', searched);
  }
  std::string_view line = std::string_view(_content).substr(_begin);
  if (end != std::string::npos) line = line.substr(0, end - _begin);
  _begin += line.size() + (end != std::string::npos ? 1 : 0);
  if (_number == 0) {
    if (line.starts_with("\xFF\xFE") || line.starts_with("\xFE\xFF")) {
      throw Failure(ExitStatus::bad_data, input_name(_arguments.file) +
                                              ": is UTF-16; convert it, as with iconv -f utf-16");
    }
    if (line.starts_with(utf8::kByteOrderMark)) line.remove_prefix(utf8::kByteOrderMark.size());
  }
  if (end == std::string::npos && line.empty()) return std::nullopt;
  ++_number;
  if (end != std::string::npos && line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

void TextReader::_append(std::string_view line, InputTexts& texts) {
  if (!_arguments.jsonl) {
    texts.texts.push_back(_repair.repaired(line, _number));
  } else if (line.find_first_not_of(" \t\r") == std::string_view::npos) {
    return;
  } else {
    std::optional<JsonRecord> record =
        record_of(_repair.repaired(line, _number), _arguments, _replaced, _number);
    if (!record) return;
    texts.texts.push_back(std::move(record->text));
    texts.members.push_back(std::move(record->members));
    if (!_arguments.members.id.empty()) texts.ids.push_back(std::move(record->id));
  }
  texts.lines.push_back(_number);
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
