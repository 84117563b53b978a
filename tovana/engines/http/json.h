#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/// JSON texts that somebody else wrote, of up to hundreds of megabytes: parsed once, read in place.
namespace tovana::http {

enum class JsonKind { object, array, string, whole_number, real, boolean, null };

/// One value inside a `JsonReply`: a view of two words, passed by value. It, and every text taken
/// from it, is valid as long as the reply it came from lives; moving the reply does not disturb it.
///
/// The operations below `kind` are for one kind each and throw RuntimeError, saying which kind was
/// expected and which is there, for any other.
///
/// Threads: nothing changes; any number may read.
class JsonValue {
 public:
  /// A number written without fraction and exponent is a whole number, any other a real one.
  JsonKind kind() const noexcept;

  /// Object: the value of a member. Of several with the same name the last one counts.
  std::optional<JsonValue> find(std::string_view name) const;

  /// Object: the names of its members in the order of the text, each once, no more than `most`.
  std::vector<std::string_view> names(std::size_t most) const;

  /// Array: the elements in order.
  std::vector<JsonValue> elements() const;

  /// Array of numbers: their values, each the double nearest to what is written, and so finite. An
  /// element of another kind is a RuntimeError that names its position.
  std::vector<double> numbers() const;

  /// String: UTF-8, escapes resolved; may hold NUL.
  std::string_view string() const;

  bool boolean() const;

  /// Whole number or real: the exact value. A whole number is a std::uint64_t only above the
  /// largest std::int64_t.
  std::variant<std::int64_t, std::uint64_t, double> number() const;

 private:
  friend class JsonReply;
  /// Holds the parser library's own view, so that its headers stay out of this one.
  using Words = std::array<std::uint64_t, 2>;
  explicit JsonValue(Words words) noexcept : _words(words) {}

  Words _words;
};

/// A parsed JSON text; owns everything its values refer to.
class JsonReply {
 public:
  /// No value may lie in more objects and arrays than this.
  static constexpr std::size_t kDeepestNesting = 64;

  /// The parser writes this much behind the text: with room for it, `parse` does not move the text.
  static constexpr std::size_t kSpareBytes = 64;

  /// Parses a whole text; beside its size that takes some 30 bytes a value. Throws RuntimeError,
  /// with what is wrong in words, for a text that is not JSON to the letter (RFC 8259, UTF-8), is
  /// nested too deeply, holds a whole number beyond 64 bits or a real one beyond a double, or more
  /// than about `most_values` values (commas and opened lists and objects count, also those within
  /// strings); or when the process is exiting. The text's memory is given back before this returns.
  static JsonReply parse(std::string text,
                         std::size_t most_values = std::numeric_limits<std::size_t>::max());

  JsonReply(JsonReply&& other) noexcept;
  JsonReply& operator=(JsonReply&& other) noexcept;
  ~JsonReply();

  JsonValue root() const noexcept;

 private:
  struct Document;
  explicit JsonReply(std::unique_ptr<Document> document) noexcept;

  std::unique_ptr<Document> _document;
};

}  // namespace tovana::http
