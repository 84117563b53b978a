#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "tovana/engines/http/json.h"

/// The two kinds of embedding endpoint, as the differences between them: what is sent, what comes
/// back, and two rules of behaviour.
///
/// | | `_API`, a generic embedding API | `_OPENAI`, an OpenAI-compatible endpoint |
/// |---|---|---|
/// | request | `{"texts": […]}` | `{"input": […], "model": …}` |
/// | reply | `{"embeddings": [[…], …]}`, in order | `{"data": [{"index": 0, "embedding": […]}]}` |
/// | no texts | are asked for, too | are answered without a request |
/// | dimension | as configured | that of the vectors |
namespace tovana::embedding {

/// What a reply holds in the place of its vectors, not looked into: a list, one value a text, or,
/// from an endpoint that does not keep to the dialect, some other value. Valid as long as the
/// reply.
using ReplyVectors = std::variant<std::vector<http::JsonValue>, http::JsonValue>;

/// One kind of endpoint. Threads: nothing changes and no operation keeps state; any number may use
/// it.
struct _Dialect {
  /// Begins the backend's name: `kind` ":" model name.
  const std::string_view kind;

  /// Names the endpoint in errors and log lines.
  const std::string_view label;

  /// The request's body for a batch of texts and the model name, a JSON object. Ill-formed UTF-8 in
  /// the texts becomes U+FFFD.
  nlohmann::ordered_json (*const body)(const std::vector<std::string>& texts,
                                       const std::string& model_name);

  /// The vectors of a reply, in the order of the texts. Throws RuntimeError for a reply without
  /// them.
  ReplyVectors (*const vectors)(http::JsonValue reply);

  /// Whether an empty batch is sent to the endpoint; otherwise it is answered without a request.
  const bool asks_empty;

  /// Whether the length of a reply's first vector becomes the backend's dimension.
  const bool learns_dimension;
};

/// Constants: they are there before any other object and when all others are gone.
extern const _Dialect _API;
extern const _Dialect _OPENAI;

/// The reply's member "embeddings", unchanged. Throws RuntimeError for a reply without it, which
/// the message describes with `_keys`.
ReplyVectors _api_vectors(http::JsonValue reply);

/// The embeddings of the reply's "data" items in the order of their "index", 0 where an item has
/// none; items of equal index keep the reply's order. A "data" that is no list is returned
/// unchanged. Indexes are numbers (true and false are 1 and 0) compared by their exact values, or
/// strings among themselves; that of a single item may be anything. Throws RuntimeError for other
/// indexes, for an item that is no object or has no "embedding", and for a reply without "data".
ReplyVectors _openai_vectors(http::JsonValue reply);

/// What a reply holds, for an error message: the names of an object's members, `['error',
/// 'detail']`, or the name of the value's kind. After 16 KB of names it breaks off with "…".
std::string _keys(http::JsonValue reply);

/// The name of a JSON value's kind in messages: "dict", "list", "str", "int", "float", "bool",
/// "NoneType".
std::string_view _kind_name(http::JsonKind kind) noexcept;

}  // namespace tovana::embedding
