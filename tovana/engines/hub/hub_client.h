#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "tovana/base/clock.h"
#include "tovana/engines/http/credentials.h"
#include "tovana/engines/http/retry_policy.h"
#include "tovana/engines/http/transport.h"
#include "tovana/engines/http/url.h"
#include "tovana/engines/hub/fetch_errors.h"
#include "tovana/engines/hub/fetch_progress.h"
#include "tovana/engines/hub/file_listing.h"
#include "tovana/engines/hub/hub_settings.h"

namespace tovana::hub {

/// How one request for something of the hub's ended.
struct HubAnswer {
  http::Outcome outcome;
  std::string url;  ///< Where the last redirect led; for messages.

  /// A whole response with what was asked for.
  bool is_good() const noexcept;
  /// A broken connection, a timeout, 408, 429 or 500 to 599.
  bool may_pass() const noexcept;
};

/// The requests that fetching one repository's model from a hub takes.
///
/// Redirects are followed by the rules that keep a token safe: it goes to the origin of the
/// endpoint alone, whatever the hub points to, and from https nothing leads to http. A hub that
/// refuses the token is asked without it from then on, as a stale token must not bar anyone from a
/// public model.
///
/// Operations block on the network; each may be called from any number of threads at once. They
/// throw ModelFetchError, http::Stopped when the stop test says so, and what the transport throws.
class HubClient {
 public:
  /// Settings, repository, transport and clock have to outlive the client. The stop test may be
  /// empty. It and the observer are called on any thread that makes a call; the observer is told of
  /// hosts and of problems, and of nothing else.
  HubClient(const HubSettings& settings, const std::string& repo_id, http::Transport& transport,
            Clock& clock, http::StopTest should_stop, FetchObserver on_request);

  const std::string& repo_id() const noexcept { return _repo_id; }

  /// The commit that a revision (a branch, a tag) stands for at the moment.
  std::string commit_of(const std::string& revision);

  /// All files of a commit.
  FileListing files_of(const std::string& commit);

  /// Asks once for a file's content from byte `offset` on. The sink gets the response of status 200
  /// or 206 that the redirects lead to, and of others nothing.
  HubAnswer get_file(const std::string& commit, const std::string& name, std::uint64_t offset,
                     http::ResponseSink& sink);

  /// Waits before the request is made again, and says why in the log and to the observer. Throws
  /// http::Stopped.
  void wait_after(const HubAnswer& answer, double seconds) const;

  /// What an answer that is not good means for somebody who wants this model.
  ModelFetchError fetch_error(const HubAnswer& answer) const;

  /// The text without the token and the endpoint's password. All that comes from the hub, and that
  /// includes the names of its files, goes through it on its way to anybody: a hub may repeat what
  /// it was sent.
  std::string masked(std::string_view text) const { return _secrets.masked(text); }

 private:
  /// Seconds: without a byte, and for one response in all.
  struct Timeouts {
    double idle_s;
    double total_s;
  };
  HubAnswer _get(const std::string& url, const http::Headers& headers, Timeouts timeouts,
                 http::ResponseSink& sink);
  HubAnswer _follow(std::string url, const http::Headers& headers, Timeouts timeouts,
                    http::ResponseSink& sink, bool with_token) const;
  std::string _problem(const HubAnswer& answer) const;
  std::string _hub_message(const HubAnswer& answer) const;
  /// A whole reply of the hub's own, tried again where that may help.
  HubAnswer _get_text(const std::string& url, std::string& text);

  const HubSettings& _settings;
  const std::string& _repo_id;
  const http::UrlOrigin _origin;
  const http::Credentials _secrets;
  const std::string _shown_endpoint;  ///< For messages: it may hold a password.
  http::Transport& _transport;
  Clock& _clock;
  const http::StopTest _should_stop;
  const FetchObserver _on_request;
  std::atomic<bool> _token_is_refused = false;
};

/// The waits between attempts of one thing: 1, 2 and 4 s, or what the hub asks for; then it is
/// given up. An attempt that got something starts the count anew.
class Patience {
 public:
  explicit Patience(const HubClient& client) : _client(client) {}

  void reset() noexcept { _waits = 0; }

  /// Waits before the next attempt; false when it is not worth it, because the answer will not
  /// change, or not soon. Throws http::Stopped.
  bool wait_after(const HubAnswer& answer);

 private:
  const HubClient& _client;
  int _waits = 0;
};

}  // namespace tovana::hub
