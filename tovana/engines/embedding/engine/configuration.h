#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

/// What an engine is told: which backend to take, and what to hand to it.
namespace tovana::embedding {

/// A null, a whole number or a text in UTF-8.
using EngineValue = std::variant<std::nullptr_t, std::int64_t, std::string>;

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

/// The value of a key that takes a text: null for a null and for no such key. Throws ValueError for
/// a number.
std::optional<std::string> text_value(const EngineConfiguration& config, std::string_view key);

/// The value of a key that takes a whole number: null for a null, for no such key, and for an empty
/// text. Throws ValueError for any other text.
std::optional<std::int64_t> number_value(const EngineConfiguration& config, std::string_view key);

}  // namespace tovana::embedding
