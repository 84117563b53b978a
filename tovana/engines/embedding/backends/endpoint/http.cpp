#include "tovana/engines/embedding/backends/endpoint/http.h"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include "tovana/base/logging.h"
#include "tovana/engines/embedding/backends/endpoint/dialects.h"
#include "tovana/engines/http/credentials.h"
#include "tovana/engines/http/post_json.h"
#include "tovana/engines/http/url.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {
namespace {

constexpr Logger log("engines.embedding");

/// More than any model has; the numbers of a vector take up to about 30 bytes each as text, so that
/// this is room for every layout.
constexpr std::size_t kMostNumbersPerText = 32768;
constexpr std::size_t kMostBytesPerText = 16 * kMostNumbersPerText;

/// For what a reply holds beside its vectors.
constexpr std::size_t kMostOtherBytes = std::size_t{1} << 20U;

/// How much of a reply without usable vectors is told.
constexpr std::size_t kMostProblemBytes = 1000;

/// Bounds a reply by what is asked for: few bytes on the wire may become gigabytes in memory.
void bound_reply(const std::vector<std::string>& texts, http::PostOptions& options) {
  std::size_t text_bytes = 0;
  for (const std::string& text : texts) text_bytes += text.size();
  // A server that repeats the texts may escape their characters and counts as values their commas.
  const std::size_t repeated = std::min(text_bytes, http::kLargestReplyBytes);
  const std::size_t count = std::min(texts.size(), http::kLargestReplyBytes / kMostBytesPerText);
  const std::size_t bytes = kMostOtherBytes + 6 * repeated + count * kMostBytesPerText;
  constexpr std::size_t kWhole = std::size_t{1} << 20U;  // as messages tell it
  options.largest_reply = std::min(http::kLargestReplyBytes, (bytes / kWhole + 1) * kWhole);
  options.most_values = kMostOtherBytes + repeated + texts.size() * kMostNumbersPerText;
}

std::string embeddings_url(const std::string& base_url) {
  std::string url = _http_url(base_url, "base_url");
  url.resize(url.find_last_not_of('/') + 1);
  return url + "/embeddings";
}

}  // namespace

template <class Options>
_HTTPEmbeddingBackend::_HTTPEmbeddingBackend(std::string url, const _Dialect& dialect,
                                             const Options& options)
    : _url(std::move(url)),
      _dialect(dialect),
      _api_key(options.api_key),
      _model_name(options.model_name),
      _name(std::string(dialect.kind) + ":" + _model_name),
      _dimension(options.dimension),
      _transport(options.transport),
      _policy(http::RetryFields{.attempts = std::max<std::int64_t>(1, options.max_attempts),
                                .backoff_s = DEFAULT_EMBED_BACKOFF,
                                .timeout_s = options.timeout,
                                .retry_statuses = _EMBED_RETRY_STATUSES,
                                .wait = options.wait}) {}

std::vector<Vector> _HTTPEmbeddingBackend::embed(const std::vector<std::string>& texts,
                                                 const EmbedLimits& limits) {
  if (texts.empty() && !_dialect.asks_empty) return {};
  http::PostOptions options{.policy = _policy.with([&](http::RetryFields& fields) {
                              fields.deadline = limits.deadline;
                              fields.should_stop = limits.should_stop;
                            }),
                            .label = std::string(_dialect.label) + " call",
                            .transport = _transport};
  bound_reply(texts, options);
  if (&_dialect == &_OPENAI && _url.find('?') != std::string::npos) {
    options.advice =
        "; \"/embeddings\" goes behind the base URL as it is, its query included: give "
        "a base URL without a query";
  }
  if (_api_key && !_api_key->empty()) options.headers["Authorization"] = "Bearer " + *_api_key;
  const http::JsonReply reply = _post(texts, options);
  try {
    return _vectors(reply.root(), texts.size());
  } catch (const RuntimeError& error) {
    // It quotes the reply.
    throw RuntimeError(
        http::Credentials(options.headers, _url).excerpt(error.what(), kMostProblemBytes));
  }
}

http::JsonReply _HTTPEmbeddingBackend::_post(const std::vector<std::string>& texts,
                                             const http::PostOptions& options) const {
  const std::string label(_dialect.label);
  try {
    return http::post_json(_url, _dialect.body(texts, _model_name), options);
  } catch (const http::Stopped& stopped) {
    throw EmbeddingStopped(label + " " + stopped.what());
  } catch (const http::HttpFailure& failure) {
    log.warning_with_error(failure, "%s HTTP/transport call failed (url=%s, texts=%d): %s", label,
                           http::masked_url(_url), texts.size(), std::string(failure.what()));
    throw RuntimeError(label + " failed: " + failure.what());
  }
}

std::vector<Vector> _HTTPEmbeddingBackend::_vectors(http::JsonValue reply, std::size_t count) {
  const ReplyVectors found = _dialect.vectors(reply);
  const auto* const values = std::get_if<std::vector<http::JsonValue>>(&found);
  if (values == nullptr || values->size() != count) {
    const std::string got = values != nullptr
                                ? std::to_string(values->size())
                                : std::string(_kind_name(std::get<http::JsonValue>(found).kind()));
    throw RuntimeError("API returned " + got + " embeddings for " + std::to_string(count) +
                       " texts");
  }
  std::vector<Vector> vectors;
  vectors.reserve(count);
  for (const http::JsonValue value : *values) {
    try {
      vectors.push_back(value.numbers());
    } catch (const RuntimeError& error) {
      throw RuntimeError("API returned an unusable embedding for text " +
                         std::to_string(vectors.size() + 1) + " of the " + std::to_string(count) +
                         " sent to " + http::masked_url(_url) + ": " + error.what());
    }
  }
  if (_dialect.learns_dimension && !vectors.empty()) {
    _dimension = static_cast<std::int64_t>(vectors.front().size());
  }
  return vectors;
}

APIEmbeddingBackend::APIEmbeddingBackend(const Options& options)
    : _HTTPEmbeddingBackend(_http_url(options.api_url, "api_url"), _API, options) {}

OpenAIEmbeddingBackend::OpenAIEmbeddingBackend(const Options& options)
    : _HTTPEmbeddingBackend(embeddings_url(options.base_url), _OPENAI, options) {}

const std::string& _http_url(const std::string& url, const std::string& name) {
  if (url.starts_with("http://") || url.starts_with("https://")) return url;
  throw ValueError(name + " must start with http:// or https://, got: '" + http::masked_url(url) +
                   "'");
}

}  // namespace tovana::embedding
