#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <simdjson.h>

#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

/// The largest id of a token, well above every vocabulary there is.
inline constexpr std::int32_t kLargestTokenId = 1 << 24;

/// An object in one of a model's JSON files, or the file as a whole. Every error is a
/// ModelFilesError that names the file and the member.
///
/// Of members with the same name the last one counts; a member that is null counts as absent, as it
/// does in the files' own programs wherever it matters. Values and texts last as long as any object
/// of the file. simdjson because tokenizer.json holds the whole vocabulary: 30,522 members parse in
/// less than a millisecond.
class JsonObject {
 public:
  using Array = simdjson::dom::array;
  using Value = simdjson::dom::element;

  /// Parses a file, nested at most 64 deep, with numbers as `with_numbers_in_range` has them.
  JsonObject(std::string path, std::string text);

  /// The file `name` of the folder; none when it is absent.
  static std::optional<JsonObject> read(const files::ModelDirectory& directory,
                                        std::string_view name);
  /// The same for a file without which there is no model: ModelFilesError when it is absent.
  static JsonObject read_required(const files::ModelDirectory& directory, std::string_view name);
  /// A file that holds an array of objects, each of which messages call `what` and its number.
  static std::optional<std::vector<JsonObject>> read_array(const files::ModelDirectory& directory,
                                                           std::string_view name,
                                                           const std::string& what);

  /// As the file has them, the ones that do not count included.
  simdjson::dom::object members() const noexcept { return _members; }
  /// The ones that count, in the order of their names, null or not.
  std::map<std::string_view, Value> members_by_name() const;
  /// Whether there is such a member, null or not.
  bool contains(std::string_view name) const;

  // Members, absent when null or missing.
  std::optional<Value> find(std::string_view name) const;
  /// A whole number from `least` to 2^31 - 1: a count of something that fits into memory.
  std::optional<std::int64_t> count(std::string_view name, std::int64_t least = 1) const;
  /// A whole number of tokens, at least 1. Other programs say "no limit" by some huge number;
  /// whatever is beyond 2^31 - 1 comes out as that.
  std::optional<std::int64_t> limit(std::string_view name) const;
  std::optional<double> number(std::string_view name) const;
  std::optional<std::int32_t> id(std::string_view name) const;
  std::optional<bool> flag(std::string_view name) const;
  std::optional<std::string_view> text(std::string_view name) const;
  std::optional<Array> array(std::string_view name) const;
  std::optional<JsonObject> object(std::string_view name) const;

  // A value as what it has to be; `name` is for the message.
  std::int32_t id_of(const Value& value, std::string_view name) const;
  std::string_view text_of(const Value& value, std::string_view name) const;
  JsonObject object_of(const Value& value, std::string_view name) const;

  /// Fails with "file: fault".
  [[noreturn]] void refuse(const std::string& fault) const;
  /// The same; `fault` is said of the member.
  [[noreturn]] void refuse(std::string_view name, std::string_view fault) const;

 private:
  using Parser = std::shared_ptr<simdjson::dom::parser>;

  JsonObject(std::string place, Parser parser, const Value& value);

  template <class Type>
  std::optional<Type> _find(std::string_view name, std::string_view expected) const;
  template <class Type>
  Type _value_of(const Value& value, std::string_view name, std::string_view expected) const;
  [[noreturn]] void _refuse_member(std::string_view name, std::string_view expected) const;
  [[noreturn]] void _refuse_value(const Value& value, std::string_view name,
                                  std::string_view expected) const;

  std::string _place;
  Parser _parser;  ///< Owns what every value refers to.
  simdjson::dom::object _members;
};

/// A value as it may stand in a message.
std::string shown(const JsonObject::Value& value);

}  // namespace tovana::sentence_transformers
