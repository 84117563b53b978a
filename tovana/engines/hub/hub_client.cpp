#include "tovana/engines/hub/hub_client.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "tovana/base/logging.h"
#include "tovana/base/text.h"
#include "tovana/engines/http/credentials.h"
#include "tovana/engines/http/failure.h"
#include "tovana/engines/hub/cache_layout.h"
#include "tovana/engines/hub/fetch_errors.h"
#include "tovana/files/model_directory.h"

namespace tovana::hub {
namespace {

constexpr int kMostRedirects = 10;
constexpr int kMostWaits = 3;
constexpr double kLongestWaitS = 60;
constexpr std::size_t kLargestText = std::size_t{8} << 20U;
constexpr std::size_t kLargestPage = std::size_t{64} << 10U;
constexpr std::size_t kLongestHubMessage = 200;
/// A hub lists a thousand files a page.
constexpr std::size_t kMostPages = 1000;
/// A reply of the hub's own that comes in drops ends after so many idle timeouts.
constexpr double kLongestReply = 30;

constexpr const char* kErrorCode = "X-Error-Code";
constexpr const char* kRepoNotFound = "RepoNotFound";
constexpr const char* kRevisionNotFound = "RevisionNotFound";
constexpr const char* kEntryNotFound = "EntryNotFound";

constexpr Logger log("engines.hub");

bool is_good(int status) { return status == 200 || status == 206; }

std::string header(const HubAnswer& answer, std::string_view name) {
  const auto& headers = answer.outcome.head.headers;
  const auto found = headers.find(name);
  return found == headers.end() ? std::string() : found->second;
}

/// Hands on what was asked for, and reads the bodies of other responses, if they are short, only so
/// that the connection stays of use.
class GoodResponses final : public http::ResponseSink {
 public:
  GoodResponses(http::ResponseSink& sink, std::function<void()> on_head)
      : _sink(sink), _on_head(std::move(on_head)) {}

  bool head(const http::ResponseHead& head) override {
    _on_head();
    _is_good = is_good(head.status);
    return !_is_good || _sink.head(head);
  }
  bool body(std::string_view bytes) override {
    if (_is_good) return _sink.body(bytes);
    _passed_over += bytes.size();
    return _passed_over <= kLargestPage;
  }

 private:
  http::ResponseSink& _sink;
  const std::function<void()> _on_head;
  bool _is_good = false;
  std::size_t _passed_over = 0;
};

class TextSink final : public http::ResponseSink {
 public:
  explicit TextSink(std::string& text) : _text(text) {}

  bool head(const http::ResponseHead& /*head*/) override {
    _text.clear();
    return true;
  }
  bool body(std::string_view bytes) override {
    if (bytes.size() > kLargestText - _text.size()) return false;
    _text += bytes;
    return true;
  }

 private:
  std::string& _text;
};

HubAnswer refused(std::string url, std::string problem) {
  return {.outcome = {.ending = http::Ending::failed, .head = {}, .problem = std::move(problem)},
          .url = std::move(url)};
}

/// The target of `Link: <URL>; rel="next"`; empty when there is none.
std::string next_page(const HubAnswer& answer) {
  const auto [first, last] = answer.outcome.head.headers.equal_range("Link");
  for (auto field = first; field != last; ++field) {
    const std::string& value = field->second;
    const std::size_t start = value.find('<');
    const std::size_t end = value.find('>');
    if (start == std::string::npos || end == std::string::npos || end < start) continue;
    if (value.find("rel=\"next\"", end) == std::string::npos) continue;
    return value.substr(start + 1, end - start - 1);
  }
  return {};
}

/// Seconds that the hub asks to wait: Retry-After, or the t of `ratelimit: "api";r=0;t=55`, at
/// whose end the requests are counted anew.
double asked_wait_s(const HubAnswer& answer) {
  const auto number = [](std::string_view text) {
    int seconds = 0;
    std::from_chars(text.data(), text.data() + text.size(), seconds);
    return seconds;
  };
  if (const std::string after = header(answer, "Retry-After"); !after.empty()) {
    return number(after);
  }
  const std::string limit = header(answer, "ratelimit");
  const std::size_t time = limit.find(";t=");
  const bool is_spent = limit.find(";r=0;") != std::string::npos;
  return is_spent && time != std::string::npos ? number(limit.substr(time + 3)) + 1 : 0;
}

http::Headers token_headers(const HubSettings& settings) {
  if (settings.token.empty()) return {};
  return {{"Authorization", "Bearer " + settings.token}};
}

[[noreturn]] void throw_stopped() { throw http::Stopped("stopped while fetching a model"); }

void throw_if_stopped(const http::StopTest& should_stop) {
  if (should_stop && should_stop()) throw_stopped();
}

ModelFetchError::Cause cause_of(const HubAnswer& answer) {
  using enum ModelFetchError::Cause;
  const int status = answer.outcome.head.status;
  const std::string code = header(answer, kErrorCode);
  if (answer.may_pass()) return unreachable;
  if (code == kRepoNotFound || code == kRevisionNotFound) return no_such_model;
  if (code == kEntryNotFound) return bad_answer;
  if (status == 401 || status == 403) return refused;
  if (status == 404 || status == 410) return no_such_model;
  return bad_answer;
}

}  // namespace

bool HubAnswer::is_good() const noexcept {
  return outcome.ending == http::Ending::complete && hub::is_good(outcome.head.status);
}

bool HubAnswer::may_pass() const noexcept {
  const int status = outcome.head.status;
  if (status == 408 || status == 429 || (status >= 500 && status <= 599)) return true;
  const bool is_answered = status != 0 && !hub::is_good(status);
  return !is_answered &&
         (outcome.ending == http::Ending::dropped || outcome.ending == http::Ending::timed_out);
}

HubClient::HubClient(const HubSettings& settings, const std::string& repo_id,
                     http::Transport& transport, Clock& clock, http::StopTest should_stop,
                     FetchObserver on_request)
    : _settings(settings),
      _repo_id(repo_id),
      _origin(http::url_origin(settings.endpoint).value_or(http::UrlOrigin{})),
      _secrets(token_headers(settings), settings.endpoint),
      _shown_endpoint(http::masked_url(settings.endpoint)),
      _transport(transport),
      _clock(clock),
      _should_stop(std::move(should_stop)),
      _on_request(std::move(on_request)) {}

std::string HubClient::commit_of(const std::string& revision) {
  std::string text;
  const HubAnswer answer = _get_text(_settings.endpoint + "/api/models/" + _repo_id + "/revision/" +
                                         http::percent_encoded(revision),
                                     text);
  std::string commit;
  try {
    const nlohmann::json info = files::parse_json(text);
    commit = info.at("sha").get<std::string>();
  } catch (const ValueError&) {
  } catch (const nlohmann::json::exception&) {
  }
  if (is_commit(commit)) return commit;
  throw ModelFetchError(ModelFetchError::Cause::bad_answer,
                        http::masked_url(answer.url) +
                            " answers with something else than a model's commit: is " +
                            _shown_endpoint + " (HF_ENDPOINT) a model hub?");
}

FileListing HubClient::files_of(const std::string& commit) {
  FileListing listing;
  std::string url = _settings.endpoint + "/api/models/" + _repo_id + "/tree/" + commit +
                    "?recursive=true&expand=false";
  for (std::size_t pages = 0; pages < kMostPages; ++pages) {
    std::string page;
    const HubAnswer answer = _get_text(url, page);
    try {
      add_listing_page(page, listing);
    } catch (const ValueError& error) {
      throw ModelFetchError(ModelFetchError::Cause::bad_answer,
                            "the list of files of the model " + _repo_id + " from " +
                                _shown_endpoint + " is malformed: " + error.what());
    }
    const std::string next = next_page(answer);
    if (next.empty()) return listing;
    const std::optional<std::string> target = http::resolved_url(next, answer.url);
    if (!target || http::url_origin(*target) != _origin) {
      throw ModelFetchError(ModelFetchError::Cause::bad_answer,
                            "the list of files of the model " + _repo_id + " from " +
                                _shown_endpoint + " goes on at " + http::masked_url(next) +
                                ", which is not the hub's: nothing was fetched");
    }
    url = *target;
  }
  throw ModelFetchError(ModelFetchError::Cause::bad_answer,
                        "the list of files of the model " + _repo_id + " from " + _shown_endpoint +
                            " has more than " + std::to_string(kMostPages) + " pages");
}

HubAnswer HubClient::get_file(const std::string& commit, const std::string& name,
                              std::uint64_t offset, http::ResponseSink& sink) {
  std::string url = _settings.endpoint + "/" + _repo_id + "/resolve/" + commit;
  for (std::size_t start = 0; start <= name.size();) {
    const std::size_t end = std::min(name.find('/', start), name.size());
    url += "/" + http::percent_encoded(name.substr(start, end - start));
    start = end + 1;
  }
  // The bytes have to be those that are hashed and counted, so nothing may repack them.
  http::Headers headers = {{"Accept-Encoding", "identity"}};
  if (offset > 0) headers.emplace("Range", "bytes=" + std::to_string(offset) + "-");
  return _get(
      url, headers,
      {.idle_s = _settings.download_timeout_s, .total_s = std::numeric_limits<double>::infinity()},
      sink);
}

HubAnswer HubClient::_get_text(const std::string& url, std::string& text) {
  Patience patience(*this);
  TextSink sink(text);
  const double idle_s = _settings.metadata_timeout_s;
  for (;;) {
    HubAnswer answer = _get(url, {}, {.idle_s = idle_s, .total_s = idle_s * kLongestReply}, sink);
    if (answer.is_good()) return answer;
    if (answer.outcome.ending == http::Ending::aborted && is_good(answer.outcome.head.status)) {
      throw ModelFetchError(ModelFetchError::Cause::bad_answer,
                            http::masked_url(answer.url) + " answers with more than " +
                                std::to_string(kLargestText >> 20U) + " MiB: is " +
                                _shown_endpoint + " (HF_ENDPOINT) a model hub?");
    }
    if (!patience.wait_after(answer)) throw fetch_error(answer);
  }
}

HubAnswer HubClient::_get(const std::string& url, const http::Headers& headers, Timeouts timeouts,
                          http::ResponseSink& sink) {
  throw_if_stopped(_should_stop);
  const bool with_token = !_settings.token.empty() && !_token_is_refused;
  HubAnswer answer = _follow(url, headers, timeouts, sink, with_token);
  if (!with_token || answer.outcome.head.status != 401) return answer;
  HubAnswer anonymous = _follow(url, headers, timeouts, sink, false);
  if (!anonymous.is_good()) return answer;
  if (!_token_is_refused.exchange(true)) {
    log.warning(
        "The model hub %s refuses the token (HF_TOKEN or the file of a login); going on without it",
        _shown_endpoint);
  }
  return anonymous;
}

HubAnswer HubClient::_follow(std::string url, const http::Headers& headers, Timeouts timeouts,
                             http::ResponseSink& sink, bool with_token) const {
  for (int redirects = 0; redirects <= kMostRedirects; ++redirects) {
    http::Request request{.url = url,
                          .headers = headers,
                          .idle_timeout_s = timeouts.idle_s,
                          .total_timeout_s = timeouts.total_s,
                          .should_stop = _should_stop};
    if (with_token && http::url_origin(url) == _origin) {
      request.headers.merge(token_headers(_settings));
      http::warn_if_exposed(http::Credentials(request.headers), url, "Fetching a model");
    }
    const std::string host = masked(http::url_origin(url).value_or(_origin).host);
    GoodResponses responses(sink, [&] { _on_request({.asked_host = host, .is_answered = true}); });
    _on_request({.asked_host = host});
    HubAnswer answer{.outcome = _transport.send(request, responses), .url = url};
    if (answer.outcome.ending == http::Ending::aborted) throw_if_stopped(_should_stop);
    const int status = answer.outcome.head.status;
    const std::string location = header(answer, "Location");
    if (status < 300 || status > 399 || location.empty()) return answer;

    const std::optional<std::string> target = http::resolved_url(location, url);
    const std::optional<http::UrlOrigin> to =
        target ? http::url_origin(*target) : std::optional<http::UrlOrigin>();
    if (!to || (to->scheme != "http" && to->scheme != "https")) {
      return refused(url, "the hub redirects to what is no http or https URL");
    }
    if (to->scheme == "http" && http::url_origin(url)->scheme == "https") {
      return refused(url, "the hub redirects from https to http, at " + to->text() +
                              ", where anyone on the way could change the file");
    }
    url = *target;
  }
  return refused(url, "the hub redirects more than " + std::to_string(kMostRedirects) + " times");
}

ModelFetchError HubClient::fetch_error(const HubAnswer& answer) const {
  return {cause_of(answer), _problem(answer)};
}

std::string HubClient::_problem(const HubAnswer& answer) const {
  const int status = answer.outcome.head.status;
  const std::string code = header(answer, kErrorCode);
  const std::string model = "the model " + _repo_id;
  if (code == "GatedRepo") {
    return model + " is gated: accept its terms at " + _shown_endpoint + "/" + _repo_id +
           ", and set HF_TOKEN to a token of the account that did";
  }
  if (code == kRevisionNotFound) {
    return model + " has no such revision at " + _shown_endpoint + _hub_message(answer);
  }
  if (code == kEntryNotFound) {
    return "the hub lists a file of " + model +
           " that it does not have: " + http::masked_url(answer.url);
  }
  if (code == kRepoNotFound || (status == 401 && _settings.token.empty())) {
    return model + " does not exist at " + _shown_endpoint +
           ", or is private: check the name, or set HF_TOKEN to a token that may read it";
  }
  if (status == 401) {
    return _shown_endpoint + " refuses the token for " + model +
           ": check HF_TOKEN, or the login of the hub's own programs" + _hub_message(answer);
  }
  const std::string what = model + " cannot be fetched from " + http::masked_url(answer.url) + ": ";
  if (status == 0 || is_good(status)) return what + answer.outcome.problem;
  std::string advice;
  if (status == 403) advice = ", access is refused: check what the token in HF_TOKEN may read";
  if (status == 404) advice = ", not found: is " + _shown_endpoint + " (HF_ENDPOINT) a model hub?";
  if (status == 429) advice = ", the hub limits how often it is asked: try again later";
  if (status >= 500) advice = ", the hub has trouble: try again later";
  return what + "HTTP " + std::to_string(status) + advice + _hub_message(answer);
}

std::string HubClient::_hub_message(const HubAnswer& answer) const {
  const std::string message = header(answer, "X-Error-Message");
  if (message.empty()) return {};
  return "; the hub says: " + _secrets.excerpt(repair_utf8(message), kLongestHubMessage);
}

void HubClient::wait_after(const HubAnswer& answer, double seconds) const {
  const int status = answer.outcome.head.status;
  const std::string problem = masked(
      status != 0 && !is_good(status) ? "HTTP " + std::to_string(status) : answer.outcome.problem);
  const std::string url = masked(http::masked_url(answer.url));
  log.info("Fetching from %s: %s; trying again in %.0f s", url, problem, seconds);
  _on_request({.problem = problem, .retry_in_s = seconds});
  if (http::wait_unless_stopped(seconds, _should_stop, _clock) == http::WaitEnding::stopped) {
    throw_stopped();
  }
}

bool Patience::wait_after(const HubAnswer& answer) {
  if (!answer.may_pass() || _waits == kMostWaits) return false;
  const double asked = asked_wait_s(answer);
  if (asked > kLongestWaitS) return false;
  _client.wait_after(answer, std::max(asked, std::ldexp(1.0, _waits++)));
  return true;
}

}  // namespace tovana::hub
