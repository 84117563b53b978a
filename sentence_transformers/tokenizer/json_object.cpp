#include "sentence_transformers/tokenizer/json_object.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include <nlohmann/json.hpp>

#include "tovana/base/utf8.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/json_numbers.h"

namespace tovana::sentence_transformers {
namespace {

using Value = JsonObject::Value;

constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();

std::string range(std::int64_t least, std::int64_t most) {
  return "a whole number from " + std::to_string(least) + " to " + std::to_string(most);
}

/// Gives the text room for what the parser reads behind its end. A byte-order mark is an error,
/// whether or not this version of the parser would skip it.
simdjson::simdjson_result<Value> parse_once(simdjson::dom::parser& parser, std::string& text) {
  constexpr std::size_t kDeepest = 64;
  if (text.starts_with(utf8::kByteOrderMark)) return simdjson::TAPE_ERROR;
  text.reserve(text.size() + simdjson::SIMDJSON_PADDING);
  const simdjson::error_code error = parser.allocate(text.size() + 1, kDeepest);
  if (error != simdjson::SUCCESS) return error;
  return parser.parse(text.data(), text.size(), false);
}

/// The document that `parser` holds then.
Value parse(simdjson::dom::parser& parser, const std::string& path, std::string text) {
  Value document;
  simdjson::error_code error = parse_once(parser, text).get(document);
  // Its numbers have at most 64 bits; what it calls others differs from version to version.
  if (error != simdjson::SUCCESS) {
    text = files::with_numbers_in_range(text);
    error = parse_once(parser, text).get(document);
  }
  if (error == simdjson::SUCCESS) return document;
  try {
    static_cast<void>(files::parse_json(text));  // Slower, but it says where the fault is.
  } catch (const ValueError& fault) {
    throw files::ModelFilesError(path + ": " + fault.what());
  }
  throw files::ModelFilesError(path +
                               ": not JSON that can be read: " + simdjson::error_message(error));
}

}  // namespace

std::string shown(const Value& value) { return files::shown_json(simdjson::minify(value)); }

JsonObject::JsonObject(std::string path, std::string text)
    : _place(std::move(path)), _parser(std::make_shared<simdjson::dom::parser>()) {
  *this = JsonObject(_place, _parser, parse(*_parser, _place, std::move(text)));
}

JsonObject::JsonObject(std::string place, Parser parser, const Value& value)
    : _place(std::move(place)), _parser(std::move(parser)) {
  if (value.get(_members) != simdjson::SUCCESS) refuse("does not hold a JSON object");
}

std::optional<JsonObject> JsonObject::read(const files::ModelDirectory& directory,
                                           std::string_view name) {
  std::optional<std::string> text = directory.read(name, files::ModelDirectory::kLargestConfig);
  if (!text) return std::nullopt;
  return JsonObject(directory.path_of(name), *std::move(text));
}

JsonObject JsonObject::read_required(const files::ModelDirectory& directory,
                                     std::string_view name) {
  std::optional<JsonObject> object = read(directory, name);
  if (!object)
    throw files::ModelFilesError(directory.path_of(name) + ": absent, and no model without it");
  return *std::move(object);
}

std::optional<std::vector<JsonObject>> JsonObject::read_array(
    const files::ModelDirectory& directory, std::string_view name, const std::string& what) {
  std::optional<std::string> text = directory.read(name, files::ModelDirectory::kLargestConfig);
  if (!text) return std::nullopt;
  const std::string path = directory.path_of(name);
  const auto parser = std::make_shared<simdjson::dom::parser>();
  Array array;
  if (parse(*parser, path, *std::move(text)).get(array) != simdjson::SUCCESS) {
    throw files::ModelFilesError(path + ": does not hold an array of " + what + "s");
  }
  std::vector<JsonObject> objects;
  for (const Value& value : array) {
    std::string place = path;
    place.append(": ").append(what).append(" ").append(std::to_string(objects.size()));
    objects.push_back(JsonObject(std::move(place), parser, value));
  }
  return objects;
}

std::map<std::string_view, Value> JsonObject::members_by_name() const {
  std::map<std::string_view, Value> members;
  for (const auto& member : _members) members.insert_or_assign(member.key, member.value);
  return members;
}

bool JsonObject::contains(std::string_view name) const {
  return _members.at_key(name).error() == simdjson::SUCCESS;
}

std::optional<Value> JsonObject::find(std::string_view name) const {
  std::optional<Value> found;
  for (const auto& member : _members) {
    if (member.key == name) found = member.value;
  }
  if (found && found->is_null()) found.reset();
  return found;
}

std::optional<std::int64_t> JsonObject::count(std::string_view name, std::int64_t least) const {
  const std::string expected = range(least, kMost);
  const auto number = _find<std::int64_t>(name, expected);
  if (number && (*number < least || *number > kMost)) _refuse_member(name, expected);
  return number;
}

std::optional<std::int64_t> JsonObject::limit(std::string_view name) const {
  const std::optional<double> value = number(name);
  if (!value) return std::nullopt;
  if (!(*value >= 1) || *value != std::floor(*value)) {
    _refuse_member(name, "a whole number, at least 1");
  }
  return static_cast<std::int64_t>(std::min(*value, static_cast<double>(kMost)));
}

std::optional<double> JsonObject::number(std::string_view name) const {
  return _find<double>(name, "a number");
}

std::optional<std::int32_t> JsonObject::id(std::string_view name) const {
  const std::optional<Value> value = find(name);
  return value ? std::optional(id_of(*value, name)) : std::nullopt;
}

std::optional<bool> JsonObject::flag(std::string_view name) const {
  return _find<bool>(name, "true or false");
}

std::optional<std::string_view> JsonObject::text(std::string_view name) const {
  return _find<std::string_view>(name, "a string");
}

std::optional<JsonObject::Array> JsonObject::array(std::string_view name) const {
  return _find<Array>(name, "an array");
}

std::optional<JsonObject> JsonObject::object(std::string_view name) const {
  const std::optional<Value> value = find(name);
  return value ? std::optional(object_of(*value, name)) : std::nullopt;
}

std::int32_t JsonObject::id_of(const Value& value, std::string_view name) const {
  std::int64_t number = -1;
  if (value.get(number) != simdjson::SUCCESS || number < 0 || number > kLargestTokenId) {
    _refuse_value(value, name, "a token id, " + range(0, kLargestTokenId));
  }
  return static_cast<std::int32_t>(number);
}

std::string_view JsonObject::text_of(const Value& value, std::string_view name) const {
  return _value_of<std::string_view>(value, name, "a string");
}

JsonObject JsonObject::object_of(const Value& value, std::string_view name) const {
  return {_place + ": " + files::in_quotes(name), _parser, value};
}

void JsonObject::refuse(const std::string& fault) const {
  throw files::ModelFilesError(_place + ": " + fault);
}

void JsonObject::refuse(std::string_view name, std::string_view fault) const {
  refuse(files::in_quotes(name) + " " + std::string(fault));
}

template <class Type>
std::optional<Type> JsonObject::_find(std::string_view name, std::string_view expected) const {
  const std::optional<Value> value = find(name);
  return value ? std::optional(_value_of<Type>(*value, name, expected)) : std::nullopt;
}

template <class Type>
Type JsonObject::_value_of(const Value& value, std::string_view name,
                           std::string_view expected) const {
  Type result{};
  if (value.get(result) != simdjson::SUCCESS) _refuse_value(value, name, expected);
  return result;
}

void JsonObject::_refuse_member(std::string_view name, std::string_view expected) const {
  if (const auto value = find(name)) _refuse_value(*value, name, expected);
  refuse(name, "should be " + std::string(expected));
}

void JsonObject::_refuse_value(const Value& value, std::string_view name,
                               std::string_view expected) const {
  refuse(name, "is " + shown(value) + " and should be " + std::string(expected));
}

}  // namespace tovana::sentence_transformers
