#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tovana/base/export.h"
#include "tovana/engines/embedding/backends/backend.h"
#include "tovana/engines/embedding/backends/endpoint/embedding_stopped.h"
#include "tovana/engines/embedding/settings.h"
#include "tovana/engines/http/retry_policy.h"

namespace tovana::http {
class JsonReply;
class JsonValue;
struct PostOptions;
class Transport;
}  // namespace tovana::http

namespace tovana::embedding {

struct _Dialect;  // dialects.h

/// What bounds one embedding call, by name only.
struct EmbedLimits {
  /// Asked on the calling thread before every attempt, during every backoff, and before the call
  /// fails because the deadline leaves no time for another attempt; true ends the call with
  /// EmbeddingStopped. Not asked while an attempt is under way. Empty: never. What it throws reaches
  /// the caller.
  http::StopTest should_stop = nullptr;

  /// The point of the monotonic clock (`system_clock().now()`), in seconds, by which the call ends.
  /// It cuts an attempt short, no attempt starts after it, and no backoff that would end after it.
  /// Null and infinity: only the backend's timeout bounds each attempt. NaN: it has passed.
  std::optional<double> deadline = std::nullopt;
};

/// Embeds texts through an HTTP endpoint, one dialect or the other: a whole batch is one JSON POST,
/// whatever its size. Nothing is kept between calls but the dimension; a failed call changes
/// nothing.
///
/// A timeout, a dropped connection, status 429 and 500 to 599 are tried again, up to `max_attempts`
/// attempts in all, after 0.5, 1, 2, … seconds; any other failure ends the call at once. The key,
/// and user, password and query values of the URL, appear in no message and no log line.
///
/// Threads: any operation may be called from any number of threads at once.
class TOVANA_API _HTTPEmbeddingBackend : public EmbeddingBackend {
 public:
  /// The dialect's kind, ":", the model name.
  const std::string& name() const noexcept override { return _name; }

  /// As constructed; for a dialect that learns it, the length of the first vector of the reply that
  /// was read last.
  std::int64_t dimension() const noexcept override { return _dimension; }

  /// Nothing to load.
  void warm_up() override {}

  /// One vector a text, in order: `[texts.size() x the endpoint's dimension]`, all numbers finite;
  /// an endpoint that sends vectors of unequal length gets them through. No texts give no vectors,
  /// in the OpenAI dialect without a request. Ill-formed UTF-8 is sent as U+FFFD. A reply may hold
  /// up to 32,768 numbers and 512 KiB a text, and 256 MiB in all. Blocks until the endpoint has
  /// answered or the attempts are used up. Throws
  /// - EmbeddingStopped when the stop test said stop, which is not logged;
  /// - RuntimeError when the call failed or ran out of its deadline, which is logged once as a
  ///   warning, or when the reply holds no usable vectors, which is not;
  /// - unchanged, what the stop test, `wait` and the transport throw, and std::bad_alloc.
  std::vector<Vector> embed(const std::vector<std::string>& texts) override {
    return embed(texts, EmbedLimits{});
  }
  std::vector<Vector> embed(const std::vector<std::string>& texts, const EmbedLimits& limits);

  /// The vectors of a reply to `count` texts, whose dimension is learnt if the dialect does that.
  /// Throws RuntimeError for another number of them, and for one that is anything but a list of
  /// finite numbers; then the dimension stays.
  std::vector<Vector> _vectors(http::JsonValue reply, std::size_t count);

 protected:
  /// For a dialect that outlives the backend. `Options` are those of either kind below, of which
  /// all but the URL count. Sends nothing and checks nothing.
  template <class Options>
  _HTTPEmbeddingBackend(std::string url, const _Dialect& dialect, const Options& options);

 private:
  /// The endpoint's reply. A failure is logged here.
  http::JsonReply _post(const std::vector<std::string>& texts,
                        const http::PostOptions& options) const;

  const std::string _url;
  const _Dialect& _dialect;
  const std::optional<std::string> _api_key;
  const std::string _model_name;
  const std::string _name;
  std::atomic<std::int64_t> _dimension;
  http::Transport* const _transport;
  const http::RetryPolicy _policy;
};

/// A generic embedding API, posted to at `api_url` itself: `{"texts": […]}`, answered by
/// `{"embeddings": [[…], …]}` in the order of the texts. Keeps the dimension it is constructed with whatever the endpoint returns.
class TOVANA_API APIEmbeddingBackend final : public _HTTPEmbeddingBackend {
 public:
  /// By name only.
  struct Options {
    std::string api_url;
    /// The bearer key; null or empty sends no Authorization header.
    std::optional<std::string> api_key = std::nullopt;
    std::string model_name = DEFAULT_API_MODEL;
    std::int64_t dimension = DEFAULT_API_DIMENSION;
    /// Seconds without a byte moved that fail an attempt; what is not above 0 counts as a
    /// millisecond.
    double timeout = DEFAULT_EMBED_TIMEOUT;
    /// In all, the first one included; below 1 counts as 1.
    std::int64_t max_attempts = DEFAULT_EMBED_MAX_ATTEMPTS;
    /// Null: the HTTP client's own. Has to outlive the backend.
    http::Transport* transport = nullptr;
    /// Sleeps through the backoffs.
    http::Wait wait = http::wait_unless_stopped;
  };

  /// Throws ValueError for an `api_url` that does not begin with http:// or https://.
  explicit APIEmbeddingBackend(const Options& options);
};

/// An OpenAI-compatible endpoint (OpenAI itself and the many that speak as it does), posted to at
/// `base_url` without its trailing slashes, followed by "/embeddings": `{"input": […], "model": …}`,
/// answered by `{"data": [{"index": 0, "embedding": […]}, …]}`. Learns its dimension.
class TOVANA_API OpenAIEmbeddingBackend final : public _HTTPEmbeddingBackend {
 public:
  /// By name only, and as those of `APIEmbeddingBackend`.
  struct Options {
    std::string base_url;
    std::optional<std::string> api_key = std::nullopt;
    std::string model_name = DEFAULT_OPENAI_MODEL;
    std::int64_t dimension = DEFAULT_OPENAI_DIMENSION;
    double timeout = DEFAULT_EMBED_TIMEOUT;
    std::int64_t max_attempts = DEFAULT_EMBED_MAX_ATTEMPTS;
    http::Transport* transport = nullptr;
    http::Wait wait = http::wait_unless_stopped;
  };

  /// Throws ValueError for a `base_url` that does not begin with http:// or https://.
  explicit OpenAIEmbeddingBackend(const Options& options);
};

/// The URL unchanged, when it begins with http:// or https:// to the letter. Throws ValueError with
/// the argument's `name` otherwise, and the URL without user, password and query values.
const std::string& _http_url(const std::string& url, const std::string& name);

}  // namespace tovana::embedding
