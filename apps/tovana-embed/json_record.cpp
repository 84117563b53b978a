#include "json_record.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include "tovana/base/text.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::tool {
namespace {

using nlohmann::json;

/// The library quotes what it has read so far, which may be megabytes.
constexpr std::size_t kLongestReason = 160;

/// Checks the whole line and keeps of it what is needed: the names of the object's own members and
/// the text. Each handler returns whether to go on.
class RecordHandler {
 public:
  explicit RecordHandler(const std::vector<std::string>& replaced) : _replaced(replaced) {}

  const std::vector<bool>& is_replaced() const noexcept { return _is_replaced; }
  const std::optional<std::string>& text() const noexcept { return _text; }
  const std::string& problem() const noexcept { return _problem; }

  bool null() { return _other_value("null"); }
  bool boolean(bool /*value*/) { return _other_value("true or false"); }
  bool number_integer(json::number_integer_t /*value*/) { return _other_value("a number"); }
  bool number_unsigned(json::number_unsigned_t /*value*/) { return _other_value("a number"); }
  bool number_float(json::number_float_t /*value*/, const std::string& /*digits*/) {
    return _other_value("a number");
  }
  bool binary(json::binary_t& /*value*/) { return _other_value("binary data"); }
  bool string(std::string& value) {
    if (_depth == 0) return _fail_as_root("a string");
    if (_depth == 1 && _in_text) _text = std::move(value);
    return true;
  }
  bool start_object(std::size_t /*size*/) {
    if (_depth > 0 && !_other_value("an object")) return false;
    ++_depth;
    return true;
  }
  bool start_array(std::size_t /*size*/) {
    if (!_other_value("an array")) return false;
    ++_depth;
    return true;
  }
  bool end_object() { return _leave(); }
  bool end_array() { return _leave(); }
  bool key(const std::string& name) {
    if (_depth == 1) {
      _in_text = name == "text";
      _is_replaced.push_back(std::ranges::find(_replaced, name) != _replaced.end());
    }
    return true;
  }
  bool parse_error(std::size_t position, const std::string& /*last*/,
                   const json::exception& error) {
    std::string_view reason = error.what();
    // "[json.exception.parse_error.101] parse error at line 1, column 9: syntax error …"
    if (const std::size_t colon = reason.find(": "); colon != std::string_view::npos) {
      reason.remove_prefix(colon + 2);
    }
    _problem = "no valid JSON at byte " + std::to_string(position) + " of the line: ";
    _problem += reason.substr(0, kLongestReason);
    if (reason.size() > kLongestReason) _problem += "…";
    return false;
  }

 private:
  bool _leave() {
    --_depth;
    return true;
  }
  bool _fail_as_root(const std::string& kind) {
    _problem = "it is " + kind + " where an object with a member \"text\" belongs";
    return false;
  }
  bool _other_value(const std::string& kind) {
    if (_depth == 0) return _fail_as_root(kind);
    if (_depth > 1 || !_in_text) return true;
    _problem = "the member \"text\" is " + kind + " where a string belongs";
    return false;
  }

  const std::vector<std::string>& _replaced;
  std::size_t _depth = 0;
  bool _in_text = false;
  std::vector<bool> _is_replaced;  ///< For each member of the object.
  std::optional<std::string> _text;
  std::string _problem;
};

/// The members of an object that is known to be valid, as they are written.
std::vector<std::string_view> split_members(std::string_view object) {
  std::vector<std::string_view> members;
  std::size_t depth = 0;
  std::size_t start = 0;
  const auto end_member = [&](std::size_t end) {
    members.push_back(trimmed(object.substr(start, end - start)));
    start = end + 1;
  };
  for (std::size_t i = 0; i < object.size(); ++i) {
    switch (object[i]) {
      case '"':
        for (++i; object[i] != '"'; ++i) {
          if (object[i] == '\\') ++i;
        }
        break;
      case '{':
      case '[':
        if (depth++ == 0) start = i + 1;
        break;
      case '}':
      case ']':
        if (--depth == 0) end_member(i);
        break;
      case ',':
        if (depth == 1) end_member(i);
        break;
      default:
        break;
    }
  }
  return members;
}

}  // namespace

JsonRecord parse_json_record(std::string_view line, const std::vector<std::string>& replaced) {
  RecordHandler handler(replaced);
  const bool valid = json::sax_parse(line.begin(), line.end(), &handler);
  if (!valid) throw ValueError(handler.problem());
  const std::optional<std::string>& text = handler.text();
  if (!text) throw ValueError("the object has no member \"text\"");

  JsonRecord record;
  record.text = *text;
  const std::vector<std::string_view> members = split_members(line);
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (handler.is_replaced()[i]) continue;
    if (!record.members.empty()) record.members += ',';
    record.members += members[i];
  }
  return record;
}

}  // namespace tovana::tool
