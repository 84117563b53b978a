#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <simdjson.h>

namespace tovana::sentence_transformers {

/// The largest id of a token, well above every vocabulary there is.
inline constexpr std::int32_t kLargestTokenId = 1 << 24;

/// One of a model's JSON files. Every error is a ModelFilesError that names the file and the
/// member.
///
/// Of members with the same name the last one counts; a member that is null counts as absent, as it
/// does in the files' own programs wherever it matters. simdjson because tokenizer.json holds the
/// whole vocabulary: 30,522 members parse in less than a millisecond.
class JsonFile {
 public:
  using Object = simdjson::dom::object;
  using Array = simdjson::dom::array;
  using Value = simdjson::dom::element;

  /// Parses an object, nested at most 64 deep, with numbers as `with_numbers_in_range` has them.
  JsonFile(std::string path, std::string text);

  const Object& root() const noexcept { return _root; }

  // Members of an object in this file. The ones without a default are absent when null or missing.
  /// Whether there is such a member, null or not.
  bool contains(const Object& object, std::string_view key) const;
  std::optional<Value> find(const Object& object, std::string_view key) const;
  std::optional<Object> find_object(const Object& object, std::string_view key) const;
  std::optional<Array> find_array(const Object& object, std::string_view key) const;
  std::optional<std::string_view> find_string(const Object& object, std::string_view key) const;
  std::optional<bool> find_bool(const Object& object, std::string_view key) const;
  std::optional<std::int32_t> find_id(const Object& object, std::string_view key) const;

  // A value as what it has to be; `key` is for the message.
  std::int32_t id(const Value& value, std::string_view key) const;
  std::string_view string(const Value& value, std::string_view key) const;
  Object object(const Value& value, std::string_view key) const;

  /// Throws; `fault` is said of the member.
  [[noreturn]] void fail(std::string_view key, std::string_view fault) const;

 private:
  simdjson::error_code _parse(std::string& text);

  std::string _path;
  std::unique_ptr<simdjson::dom::parser> _parser;  ///< Owns what every value refers to.
  Object _root;
};

}  // namespace tovana::sentence_transformers
