#include "tovana/engines/http/post_json.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <utility>

#include <nlohmann/json.hpp>

#include "tovana/base/text.h"
#include "tovana/engines/http/credentials.h"
#include "tovana/engines/http/reply_sink.h"
#include "tovana/engines/http/url.h"

namespace tovana::http {
namespace {

constexpr std::size_t kMostQuotedBytes = 200;
constexpr std::size_t kMostProblemBytes = 1000;

/// How much longer than its idle timeout an attempt that keeps moving bytes may take.
constexpr double kTotalToIdleTimeout = 10;

std::string_view advice_for(int status) {
  switch (status) {
    case 401:
      return "check the API key";
    case 403:
      return "check what the API key is allowed to do";
    case 404:
    case 405:
      return "check the URL and the model name";
    case 407:
      return "the proxy asks for credentials: check the environment's proxy variables";
    case 413:
      return "the request is too large for the server: send fewer or shorter texts at once";
    case 422:
      return "the server does not take such a request: is it of the kind that this URL's server "
             "speaks (openai or api), and are the texts too many or too long?";
    case 429:
      return "the server limits how often it is called";
    default:
      return {};
  }
}

/// How one attempt ended: with a reply, or with a problem.
struct Attempt {
  std::optional<JsonReply> reply = std::nullopt;
  std::string problem = {};
  bool try_again = false;
  bool was_sent = true;
};

class Call {
 public:
  Call(const std::string& url, const nlohmann::ordered_json& body, const PostOptions& options)
      : _options(options),
        _policy(options.policy),
        _credentials(options.headers, url),
        _transport(options.transport != nullptr ? *options.transport : default_transport()),
        _attempts(std::max<std::int64_t>(1, _policy->attempts)),
        _body(body.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)),
        _request({.method = Method::post,
                  .url = url,
                  .headers = options.headers,
                  .body = _body,
                  .accept_gzip = true}) {
    _request.headers.emplace("Content-Type", "application/json");
    _request.headers.emplace("Accept", "application/json");
  }

  JsonReply run() {
    warn_if_exposed(_credentials, _request.url, _options.label);
    double backoff_s = _policy->backoff_s;
    for (;;) {
      _stop_if_asked();
      const double left = _time_left();
      if (!(left > 0)) fail_for_deadline();
      Attempt attempt = _make_attempt(left);
      if (attempt.reply) return std::move(*attempt.reply);
      if (attempt.was_sent) ++_made;
      _problem = std::move(attempt.problem);
      if (!attempt.try_again || _made == _attempts) fail(_problem);
      _back_off(backoff_s);
      backoff_s *= 2;
    }
  }

 private:
  /// Seconds to the deadline; infinity without one.
  double _time_left() const {
    const std::optional<double>& deadline = _policy->deadline;
    return deadline ? *deadline - _policy->clock->now() : std::numeric_limits<double>::infinity();
  }

  Attempt _make_attempt(double left) {
    _request.idle_timeout_s = std::min(_policy->timeout_s, left);
    _request.total_timeout_s = std::min(kTotalToIdleTimeout * _policy->timeout_s, left);
    ReplySink sink(_options.largest_reply);
    const Outcome outcome = _transport.send(_request, sink);
    const int status = outcome.head.status;
    if (status != 0 && (!is_success(status) || _policy->retry_statuses.contains(status))) {
      // However its body ended: a server that refuses a request may well reset the connection.
      return {.problem = _status_problem(outcome.head, sink.text()),
              .try_again = _policy->retry_statuses.contains(status)};
    }
    if (outcome.ending == Ending::complete) return _read_reply(outcome.head, sink.text());
    if (sink.is_too_large()) {
      return {.problem = "the reply is larger than " +
                         std::to_string(_options.largest_reply >> 20U) +
                         " MiB, the most that is read for this request"};
    }
    return {.problem = outcome.problem,
            .try_again = outcome.ending == Ending::dropped || outcome.ending == Ending::timed_out,
            .was_sent = outcome.ending != Ending::refused};
  }

  std::string _status_problem(const ResponseHead& head, const std::string& body) const {
    std::string problem = "HTTP " + std::to_string(head.status);
    const bool is_redirect = head.status >= 300 && head.status <= 399;
    const std::string advice =
        is_redirect ? _redirect_problem(head.headers) : std::string(advice_for(head.status));
    if (!advice.empty()) problem += ", " + advice;
    if (!trimmed(body).empty()) problem += "; the server says " + _quoted(body);
    return problem;
  }

  std::string _redirect_problem(const ResponseHeaders& headers) const {
    const auto location = headers.find("Location");
    if (location == headers.end()) return "redirects are not followed";
    // Masked first: as a host a secret would come in lower case, and in pieces.
    const std::optional<UrlOrigin> origin =
        url_origin(_credentials.masked(location->second), _request.url);
    if (!origin) return "redirects are not followed; this one leads to no usable URL";
    return "redirects are not followed; this one leads to " +
           escape_control_characters(origin->text()) + ": set the URL to the final address";
  }

  /// The beginning of a text from outside.
  std::string _quoted(std::string_view text) const {
    return "'" + _credentials.excerpt(text, kMostQuotedBytes) + "'";
  }

  Attempt _read_reply(const ResponseHead& head, std::string& text) const {
    const std::string status = "HTTP " + std::to_string(head.status);
    if (trimmed(text).empty()) return {.problem = "the reply is empty (" + status + ")"};
    try {
      return {.reply = JsonReply::parse(std::move(text), _options.most_values)};
    } catch (const RuntimeError& error) {
      const auto type = head.headers.find("Content-Type");
      return {.problem = "the reply is not usable JSON (" + status + ", " +
                         (type == head.headers.end() ? "no content type"
                                                     : "content type " + _quoted(type->second)) +
                         "): " + error.what()};
    }
  }

  void _back_off(double backoff_s) {
    if (!(std::max(backoff_s, 0.0) < _time_left())) {
      _stop_if_asked();
      fail_for_deadline();
    }
    const WaitEnding ending =
        _policy->wait ? _policy->wait(backoff_s, _policy->should_stop, *_policy->clock)
                      : wait_unless_stopped(backoff_s, _policy->should_stop, *_policy->clock);
    if (ending == WaitEnding::stopped) stop();
  }

  void _stop_if_asked() const {
    if (_policy->should_stop && _policy->should_stop()) stop();
  }

  [[noreturn]] void stop() const {
    throw Stopped("stopped before attempt " + std::to_string(_made + 1) + " of " +
                  std::to_string(_attempts));
  }

  [[noreturn]] void fail_for_deadline() const {
    fail(_made == 0 ? "the deadline has passed"
                    : _problem + "; the deadline leaves no time to try again");
  }

  /// The one way in which a call fails; whatever the problem quotes, no secret and no more than a
  /// line or two gets out.
  [[noreturn]] void fail(const std::string& problem) const {
    throw HttpFailure(_options.label + " to " + masked_url(_request.url) +
                      (_made == 0   ? " was not sent: "
                       : _made == 1 ? " failed: "
                                    : " failed after " + std::to_string(_made) + " attempts: ") +
                      _credentials.excerpt(problem, kMostProblemBytes) + _options.advice);
  }

  const PostOptions& _options;
  const RetryPolicy& _policy;
  const Credentials _credentials;
  Transport& _transport;
  const std::int64_t _attempts;
  std::int64_t _made = 0;  ///< Attempts that failed,
  std::string _problem;    ///< and how the last of them did.
  const std::string _body;
  Request _request;
};

}  // namespace

JsonReply post_json(const std::string& url, const nlohmann::ordered_json& body,
                    const PostOptions& options) {
  if (!body.is_object()) throw ValueError("the body of a JSON call must be an object");
  return Call(url, body, options).run();
}

}  // namespace tovana::http
