#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "tovana/engines/http/json.h"
#include "tovana/exceptions/exceptions.h"

/// Any bytes as a reply: parsing fails with RuntimeError or gives values that can be read to the
/// last one, and that are what nlohmann-json, a parser of other hands, makes of the same bytes.
namespace {

using tovana::http::JsonKind;
using tovana::http::JsonReply;
using tovana::http::JsonValue;

void require(bool holds) {
  if (!holds) std::abort();
}

void compare(JsonValue value, const nlohmann::json& other) {
  switch (value.kind()) {
    case JsonKind::object:
      require(other.is_object());
      require(value.members().size() == other.size());
      for (const auto& [name, member] : value.members()) {
        require(other.contains(name));
        compare(member, other.at(std::string(name)));
      }
      return;
    case JsonKind::array: {
      const std::vector<JsonValue> elements = value.elements();
      require(other.is_array() && elements.size() == other.size());
      for (std::size_t i = 0; i < elements.size(); ++i) compare(elements[i], other[i]);
      return;
    }
    case JsonKind::string:
      require(other == value.string());
      return;
    case JsonKind::boolean:
      require(other == value.boolean());
      return;
    case JsonKind::null:
      require(other.is_null());
      return;
    case JsonKind::whole_number:
    case JsonKind::real:
      require(other.is_number());
      std::visit([&](auto number) { require(other == number); }, value.number());
      return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    const JsonReply reply = JsonReply::parse(text);
    compare(reply.root(), nlohmann::json::parse(text));
  } catch (const tovana::RuntimeError&) {  // not JSON
  }
  return 0;
}
