#include "json_record.h"

#include <algorithm>
#include <cstddef>
#include <map>

#include <nlohmann/json.hpp>

#include "tovana/base/text.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::tool {
namespace {

using nlohmann::json;

/// The library quotes what it has read so far, which may be megabytes.
constexpr std::size_t kLongestReason = 160;

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::ranges::find(names, name) != names.end();
}

/// `"a"`, or `"a", "b"`.
std::string quoted(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) list += (list.empty() ? "\"" : ", \"") + name + "\"";
  return list;
}

/// Checks the whole line and keeps of it what is needed: of the object's own members the names and
/// the values that are asked for. Each handler returns whether to go on.
class RecordHandler {
 public:
  RecordHandler(const RecordMembers& members, const std::vector<std::string>& replaced)
      : _members(members), _replaced(replaced) {}

  const std::vector<bool>& is_replaced() const noexcept { return _is_replaced; }
  const std::string& problem() const noexcept { return _problem; }
  bool is_note() const noexcept { return _is_note; }

  /// Of those of the members that are there.
  std::vector<std::string> values(const std::vector<std::string>& names) const {
    std::vector<std::string> values;
    for (const std::string& name : names) {
      const auto value = _values.find(name);
      if (value != _values.end()) values.push_back(value->second);
    }
    return values;
  }

  bool null() {
    if (_depth == 1 && _in_text && !_in_id) return _values.erase(_name), true;
    return _other_value("null");
  }
  bool boolean(bool /*value*/) { return _other_value("true or false"); }
  bool number_integer(json::number_integer_t value) { return _number(std::to_string(value)); }
  bool number_unsigned(json::number_unsigned_t value) { return _number(std::to_string(value)); }
  bool number_float(json::number_float_t /*value*/, const std::string& digits) {
    return _number(digits);
  }
  bool binary(json::binary_t& /*value*/) { return _other_value("binary data"); }
  bool string(std::string& value) {
    if (_depth == 0) return _fail_as_root("a string");
    if (_depth > 1) return true;
    if (_name == "_type") _is_note = value == "ptag";
    if (_in_text || _in_id) _values[_name] = std::move(value);
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
      _name = name;
      _in_text = contains(_members.text, name);
      _in_id = contains(_members.id, name);
      _is_replaced.push_back(contains(_replaced, name));
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
    _problem =
        "it is " + kind + " where an object with a member " + quoted(_members.text) + " belongs";
    return false;
  }
  bool _number(const std::string& digits) {
    if (_depth != 1 || _in_text || !_in_id) return _other_value("a number");
    _values[_name] = digits;
    return true;
  }
  bool _other_value(const std::string& kind) {
    if (_depth == 0) return _fail_as_root(kind);
    if (_depth > 1 || (!_in_text && !_in_id)) return true;
    _problem = "the member \"" + _name + "\" is " + kind + " where a string " +
               (_in_text ? "" : "or a number ") + "belongs";
    return false;
  }

  const RecordMembers& _members;
  const std::vector<std::string>& _replaced;
  std::size_t _depth = 0;
  std::string _name;  ///< Of the member that is read, which may be a part of these:
  bool _in_text = false;
  bool _in_id = false;
  bool _is_note = false;
  std::vector<bool> _is_replaced;  ///< For each member of the object.
  std::map<std::string, std::string> _values;
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

/// Those of a valid object that are not replaced.
std::string remaining_members(std::string_view object, const RecordHandler& handler) {
  std::string result;
  const std::vector<std::string_view> members = split_members(object);
  for (std::size_t i = 0; i < handler.is_replaced().size(); ++i) {
    if (handler.is_replaced()[i]) continue;
    if (!result.empty()) result += ',';
    result += members[i];
  }
  return result;
}

std::string joined(const std::vector<std::string>& values, char separator) {
  std::string result;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i > 0) result += separator;
    result += values[i];
  }
  return result;
}

}  // namespace

std::optional<JsonRecord> parse_json_record(std::string_view line, const RecordMembers& members,
                                            const std::vector<std::string>& replaced) {
  RecordHandler handler(members, replaced);
  const bool valid = json::sax_parse(line.begin(), line.end(), &handler);
  if (valid && handler.is_note()) return std::nullopt;
  if (!valid) throw ValueError(handler.problem());
  const std::vector<std::string> texts = handler.values(members.text);
  const std::vector<std::string> ids = handler.values(members.id);
  if (texts.empty()) throw ValueError("the object has no member " + quoted(members.text));
  if (ids.size() < members.id.size()) {
    throw ValueError("the object lacks a member of its id: " + quoted(members.id));
  }

  JsonRecord record;
  record.text = joined(texts, ' ');
  record.id = joined(ids, '\t');
  record.members = remaining_members(line, handler);
  return record;
}

std::string without_members(std::string_view members, const std::vector<std::string>& replaced) {
  const std::string object = "{" + std::string(members) + "}";
  const RecordMembers none = {.text = {}, .id = {}};
  RecordHandler handler(none, replaced);
  json::sax_parse(object.begin(), object.end(), &handler);
  return remaining_members(object, handler);
}

}  // namespace tovana::tool
