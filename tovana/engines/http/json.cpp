#include "tovana/engines/http/json.h"

#include <bit>
#include <new>
#include <type_traits>
#include <unordered_set>
#include <utility>

#include <simdjson.h>

#include "tovana/base/json_kernels.h"
#include "tovana/base/utf8.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::http {
namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

static_assert(JsonReply::kSpareBytes >= simdjson::SIMDJSON_PADDING);
static_assert(std::is_trivially_copyable_v<element> && sizeof(element) == 2 * sizeof(std::uint64_t),
              "a JsonValue carries simdjson's view of a value in its two words");

element view(const std::array<std::uint64_t, 2>& words) noexcept {
  return std::bit_cast<element>(words);
}

std::array<std::uint64_t, 2> words(const element& value) noexcept {
  return std::bit_cast<std::array<std::uint64_t, 2>>(value);
}

JsonKind kind_of(const element& value) noexcept {
  switch (value.type()) {
    case element_type::OBJECT:
      return JsonKind::object;
    case element_type::ARRAY:
      return JsonKind::array;
    case element_type::STRING:
      return JsonKind::string;
    case element_type::INT64:
    case element_type::UINT64:
      return JsonKind::whole_number;
    case element_type::DOUBLE:
      return JsonKind::real;
    case element_type::BOOL:
      return JsonKind::boolean;
    case element_type::NULL_VALUE:
      break;
  }
  return JsonKind::null;
}

std::string_view kind_name(JsonKind kind) noexcept {
  switch (kind) {
    case JsonKind::object:
      return "an object";
    case JsonKind::array:
      return "an array";
    case JsonKind::string:
      return "a string";
    case JsonKind::whole_number:
      return "a whole number";
    case JsonKind::real:
      return "a number with a fraction";
    case JsonKind::boolean:
      return "a boolean";
    case JsonKind::null:
      break;
  }
  return "null";
}

/// The value as the type that holds its kind; `expected` is that kind in words.
template <class T>
T as(const element& value, const char* expected) {
  T result;
  if (value.get(result) != simdjson::SUCCESS) {
    throw RuntimeError("expected " + std::string(expected) + ", got " +
                       std::string(kind_name(kind_of(value))));
  }
  return result;
}

/// Done when the program is loaded: the first text may come when the process has begun to exit.
[[maybe_unused]] const bool kernels_are_kept = [] {
  keep_json_kernels();
  return true;
}();

/// Python's json module writes NaN and Infinity, so servers written in Python do send them.
bool holds_python_literal(std::string_view text) {
  bool in_string = false;
  for (std::size_t position = 0; position < text.size(); ++position) {
    const char byte = text[position];
    if (byte == '"') in_string = !in_string;
    if (byte == '\\') ++position;
    if (in_string) continue;
    const std::string_view rest = text.substr(position);
    if (rest.starts_with("NaN") || rest.starts_with("Infinity")) return true;
  }
  return false;
}

/// Whether a text has more commas and opening brackets than `most`. A value takes two bytes with
/// its comma, so that most texts need not be looked at.
bool holds_more_values(std::string_view text, std::size_t most) {
  if (text.size() / 2 <= most) return false;
  constexpr std::size_t kBlock = 255;  // what a byte can count, so that it is counted in bytes
  std::size_t count = 0;
  for (std::size_t start = 0; start < text.size(); start += kBlock) {
    unsigned char in_block = 0;
    for (const char byte : text.substr(start, kBlock)) {
      const bool opens = (static_cast<unsigned char>(byte) | 0x20U) == '{';  // '[' too
      in_block = static_cast<unsigned char>(in_block + ((byte == ',') | opens));
    }
    count += in_block;
  }
  return count > most;
}

std::string explanation(simdjson::error_code error, std::string_view text) {
  switch (error) {
    case simdjson::EMPTY:
      return "it is empty";
    case simdjson::DEPTH_ERROR:
      return "it is nested more than " + std::to_string(JsonReply::kDeepestNesting) +
             " levels deep";
    case simdjson::UTF8_ERROR:
      return "it is not UTF-8";
    case simdjson::CAPACITY:
      return "it is too large";
    default:
      break;
  }
  if (holds_python_literal(text)) {
    return "it holds NaN or Infinity, which JSON does not have: the server computed a number that "
           "is not finite";
  }
  if (error == simdjson::NUMBER_ERROR) return "a number is malformed or out of range";
  return simdjson::error_message(error);
}

}  // namespace

struct JsonReply::Document {
  simdjson::dom::document parsed;
};

JsonKind JsonValue::kind() const noexcept { return kind_of(view(_words)); }

std::optional<JsonValue> JsonValue::find(std::string_view name) const {
  std::optional<JsonValue> found;
  for (const auto& member : as<simdjson::dom::object>(view(_words), "an object")) {
    if (member.key == name) found = JsonValue(words(member.value));
  }
  return found;
}

std::vector<std::string_view> JsonValue::names(std::size_t most) const {
  std::vector<std::string_view> names;
  std::unordered_set<std::string_view> seen;
  for (const auto& member : as<simdjson::dom::object>(view(_words), "an object")) {
    if (names.size() >= most) break;
    if (seen.insert(member.key).second) names.push_back(member.key);
  }
  return names;
}

std::vector<JsonValue> JsonValue::elements() const {
  const auto array = as<simdjson::dom::array>(view(_words), "an array");
  std::vector<JsonValue> elements;
  elements.reserve(array.size());
  for (const element value : array) elements.push_back(JsonValue(words(value)));
  return elements;
}

std::vector<double> JsonValue::numbers() const {
  const auto array = as<simdjson::dom::array>(view(_words), "an array of numbers");
  std::vector<double> numbers;
  numbers.reserve(array.size());
  for (const element value : array) {
    double number = 0;
    if (value.get(number) != simdjson::SUCCESS) {
      throw RuntimeError("expected a number at position " + std::to_string(numbers.size()) +
                         " of an array, got " + std::string(kind_name(kind_of(value))));
    }
    numbers.push_back(number);
  }
  return numbers;
}

std::string_view JsonValue::string() const {
  return as<std::string_view>(view(_words), "a string");
}

bool JsonValue::boolean() const { return as<bool>(view(_words), "a boolean"); }

std::variant<std::int64_t, std::uint64_t, double> JsonValue::number() const {
  const element value = view(_words);
  switch (value.type()) {
    case element_type::INT64:
      return as<std::int64_t>(value, "a number");
    case element_type::UINT64:
      return as<std::uint64_t>(value, "a number");
    default:
      return as<double>(value, "a number");
  }
}

JsonReply::JsonReply(std::unique_ptr<Document> document) noexcept
    : _document(std::move(document)) {}
JsonReply::JsonReply(JsonReply&& other) noexcept = default;
JsonReply& JsonReply::operator=(JsonReply&& other) noexcept = default;
JsonReply::~JsonReply() = default;

JsonReply JsonReply::parse(std::string text, std::size_t most_values) {
  const std::size_t size = text.size();
  if (holds_more_values(text, most_values)) {
    throw RuntimeError("it holds more than " + std::to_string(most_values) +
                       " values, the most that is read for this request");
  }
  // Versions of the parser differ in whether they skip it.
  if (text.starts_with(utf8::kByteOrderMark)) {
    throw RuntimeError("it begins with a byte-order mark");
  }
  text.append(simdjson::SIMDJSON_PADDING, ' ');  // the parser reads whole registers beyond the end

  auto document = std::make_unique<Document>();
  simdjson::dom::parser parser;
  // The parser counts the root as a level of its own.
  simdjson::error_code error = parser.allocate(0, kDeepestNesting + 1);
  if (error == simdjson::SUCCESS) {
    error = parser.parse_into_document(document->parsed, text.data(), size, false).error();
  }
  if (error == simdjson::MEMALLOC) throw std::bad_alloc();
  if (error != simdjson::SUCCESS) {
    throw RuntimeError(explanation(error, std::string_view(text).substr(0, size)));
  }
  return JsonReply(std::move(document));
}

JsonValue JsonReply::root() const noexcept { return JsonValue(words(_document->parsed.root())); }

}  // namespace tovana::http
