#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "tovana/exceptions/exceptions.h"

/// What an engine is told: which backend to take, and what to hand to it.
namespace tovana::embedding {

/// A null, a whole number or a text in UTF-8, made of any of them as it comes; read as the variant
/// that it is.
class EngineValue : public std::variant<std::nullptr_t, std::int64_t, std::string> {
 public:
  // NOLINTBEGIN(google-explicit-constructor): a configuration is written with plain values
  EngineValue(std::nullptr_t null = nullptr) noexcept : variant(null) {}
  EngineValue(std::string text) noexcept : variant(std::move(text)) {}
  EngineValue(std::string_view text) : variant(std::string(text)) {}
  EngineValue(const char* text) : variant(std::string(text)) {}

  /// Of any type of whole numbers. Throws ValueError for one above the largest of 64 bits.
  template <std::integral Number>
    requires(!std::same_as<Number, bool> && !std::same_as<Number, char>)
  EngineValue(Number number) : variant(static_cast<std::int64_t>(number)) {
    if (!std::in_range<std::int64_t>(number)) {
      throw ValueError("no configuration holds a whole number beyond 64 bits");
    }
  }
  // NOLINTEND(google-explicit-constructor)
};

/// Values by name. Every key may be missing; an empty configuration leaves everything to what is
/// installed. Other keys are not read, but tell engines apart (`SharedEngines`). Nothing is checked
/// before a value is used: one of the wrong kind is then a failed attempt to load.
///
/// | key | value | null, or missing |
/// |---|---|---|
/// | `backend` | "local", "api", "openai" or "tfidf", to the letter | the engine chooses, as for any other value |
/// | `model_name` | local: a model's name or directory; openai: the model that is asked for | missing: the backend's default; null is of the wrong kind |
/// | `api_url` | where the generic API is posted to | as "" and 0: not configured |
/// | `base_url` | openai: what "/embeddings" is appended to | as "" and 0: `api_url` serves |
/// | `api_key` | the bearer key of an endpoint | as "": none is sent |
/// | `dimension` | numbers in a vector | as "" and 0: the backend's own |
using EngineConfiguration = std::map<std::string, EngineValue, std::less<>>;

}  // namespace tovana::embedding
