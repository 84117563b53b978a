#include "sentence_transformers/tokenizer/json_file.h"

#include <utility>

#include "tovana/exceptions/exceptions.h"
#include "tovana/files/json_numbers.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

JsonFile::JsonFile(std::string path, std::string text)
    : _path(std::move(path)), _parser(std::make_unique<simdjson::dom::parser>()) {
  simdjson::error_code error = _parse(text);
  // Its numbers have at most 64 bits, and says of others no more than that they are faulty.
  if (error == simdjson::NUMBER_ERROR) {
    text = files::with_numbers_in_range(text);
    error = _parse(text);
  }
  if (error == simdjson::INCORRECT_TYPE)
    throw files::ModelFilesError(_path + ": not a JSON object");
  if (error != simdjson::SUCCESS) {
    throw files::ModelFilesError(_path +
                                 ": not JSON that can be read: " + simdjson::error_message(error));
  }
}

/// Gives the text room for what the parser reads behind its end.
simdjson::error_code JsonFile::_parse(std::string& text) {
  constexpr std::size_t kDeepest = 64;
  text.reserve(text.size() + simdjson::SIMDJSON_PADDING);
  simdjson::error_code error = _parser->allocate(text.size() + 1, kDeepest);
  simdjson::dom::element document;
  if (error == simdjson::SUCCESS) {
    error = _parser->parse(text.data(), text.size(), false).get(document);
  }
  return error == simdjson::SUCCESS ? document.get(_root) : error;
}

void JsonFile::fail(std::string_view key, std::string_view fault) const {
  throw files::ModelFilesError(_path + ": " + files::in_quotes(key) + " " + std::string(fault));
}

bool JsonFile::contains(const Object& object, std::string_view key) const {
  return object.at_key(key).error() == simdjson::SUCCESS;
}

std::optional<JsonFile::Value> JsonFile::find(const Object& object, std::string_view key) const {
  std::optional<Value> found;
  for (const auto& member : object) {
    if (member.key == key) found = member.value;
  }
  if (found && found->is_null()) found.reset();
  return found;
}

std::optional<JsonFile::Object> JsonFile::find_object(const Object& object,
                                                      std::string_view key) const {
  const std::optional<Value> value = find(object, key);
  if (!value) return std::nullopt;
  return this->object(*value, key);
}

std::optional<JsonFile::Array> JsonFile::find_array(const Object& object,
                                                    std::string_view key) const {
  const std::optional<Value> value = find(object, key);
  if (!value) return std::nullopt;
  Array array;
  if (value->get(array) != simdjson::SUCCESS) fail(key, "is not an array");
  return array;
}

std::optional<std::string_view> JsonFile::find_string(const Object& object,
                                                      std::string_view key) const {
  const std::optional<Value> value = find(object, key);
  if (!value) return std::nullopt;
  return string(*value, key);
}

std::optional<bool> JsonFile::find_bool(const Object& object, std::string_view key) const {
  const std::optional<Value> value = find(object, key);
  if (!value) return std::nullopt;
  bool boolean = false;
  if (value->get(boolean) != simdjson::SUCCESS) fail(key, "is neither true nor false");
  return boolean;
}

std::optional<std::int32_t> JsonFile::find_id(const Object& object, std::string_view key) const {
  const std::optional<Value> value = find(object, key);
  if (!value) return std::nullopt;
  return id(*value, key);
}

std::int32_t JsonFile::id(const Value& value, std::string_view key) const {
  std::int64_t number = -1;
  if (value.get(number) != simdjson::SUCCESS || number < 0 || number > kLargestTokenId) {
    fail(key, "is not a token id, a whole number from 0 to " + std::to_string(kLargestTokenId));
  }
  return static_cast<std::int32_t>(number);
}

std::string_view JsonFile::string(const Value& value, std::string_view key) const {
  std::string_view text;
  if (value.get(text) != simdjson::SUCCESS) fail(key, "is not a string");
  return text;
}

JsonFile::Object JsonFile::object(const Value& value, std::string_view key) const {
  Object object;
  if (value.get(object) != simdjson::SUCCESS) fail(key, "is not an object");
  return object;
}

}  // namespace tovana::sentence_transformers
