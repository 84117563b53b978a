#pragma once

#include <cstddef>
#include <limits>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "tovana/engines/http/failure.h"
#include "tovana/engines/http/headers.h"
#include "tovana/engines/http/json.h"
#include "tovana/engines/http/retry_policy.h"
#include "tovana/engines/http/transport.h"

/// The HTTP JSON client: one call that posts a JSON object and returns the JSON that comes back,
/// tried again as its policy says.
///
///     const JsonReply reply = post_json(url, {{"texts", texts}},
///                                       {.policy = policy,
///                                        .label = "API embedding call",
///                                        .headers = {{"Authorization", "Bearer " + key}}});
///     const std::vector<JsonValue> vectors = reply.root().find("embeddings")->elements();
namespace tovana::http {

/// The largest reply body, decoded, that is ever read.
inline constexpr std::size_t kLargestReplyBytes = std::size_t{256} << 20U;

struct PostOptions {
  RetryPolicy policy = {};

  /// Names the call in messages: "API embedding call".
  std::string label = "HTTP call";

  /// Added to the request's own Content-Type and Accept, or put in their place. The values of those
  /// that carry credentials (Authorization, and names with "key", "token" or the like in them) are
  /// blotted out of every message, as are user, password and the query's values of the URL.
  Headers headers = {};

  /// Bytes of the reply's body, decoded, and values in it (see `JsonReply::parse`). What was asked
  /// for needs so much and no more; over it the call fails and is not tried again.
  std::size_t largest_reply = kLargestReplyBytes;
  std::size_t most_values = std::numeric_limits<std::size_t>::max();

  /// Ends the message of a failure: what the caller knows that may be to blame for it.
  std::string advice = {};

  /// What the request goes over; null for `default_transport()`. Has to outlive the call.
  Transport* transport = nullptr;
};

/// POSTs `body`, a JSON object, and returns the parsed body of a 2xx response. Ill-formed UTF-8 in
/// the body's texts is replaced by U+FFFD.
///
/// Blocks for as long as the policy allows. Throws
/// - Stopped when the policy's stop test says stop;
/// - HttpFailure for every other way in which the call can fail;
/// - ValueError for a body that is not an object;
/// - unchanged, what the policy's stop test, wait and clock or the transport throw, and
///   std::bad_alloc.
///
/// Tried again are timeouts, dropped connections (refused and reset ones, failed name look-ups and
/// cut bodies among them) and the policy's statuses; a reply that is not JSON is not. An error's
/// body and content type decide nothing; 200 bytes of it are quoted, if it comes within a second.
///
/// A key that goes over plain http to a host that is not loopback is warned of once a host, on the
/// logger "engines.http"; nothing else is logged.
///
/// Threads: any number of calls at once, on one transport or several.
JsonReply post_json(const std::string& url, const nlohmann::ordered_json& body,
                    const PostOptions& options);

}  // namespace tovana::http
