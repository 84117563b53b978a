#pragma once

#include <cstddef>
#include <functional>
#include <limits>
#include <string>
#include <string_view>

#include "tovana/engines/http/headers.h"

/// Carries one HTTP request and its response. What to do about a failure (try again, wait, give up)
/// is the caller's policy and no concern of a transport.
namespace tovana::http {

enum class Method { get, post };

struct Request {
  Method method = Method::get;

  /// Absolute, http or https, with a host. Userinfo in it becomes basic authentication.
  std::string url;

  Headers headers = {};

  /// Sent with `post`. Not copied: it has to live until `send` returns.
  std::string_view body = {};

  /// Seconds without a byte moved, in either direction, that end the exchange. Name look-up,
  /// connecting and the TLS handshake together have to be done in one such stretch too.
  double idle_timeout_s = 30.0;

  /// Seconds that end the exchange in any case, also in the middle of a transfer. This and the
  /// others count in real time; what is not above 0 counts as one millisecond.
  double total_timeout_s = std::numeric_limits<double>::infinity();

  /// Seconds that the body of a response whose status is not 2xx is waited for once its head is
  /// there. That status has decided; the body only explains it. Ends the exchange as `timed_out`.
  double error_body_timeout_s = 1.0;

  /// Offers the server gzip; the sink gets the decoded bytes. A large body that was compressed
  /// beyond measure ends the exchange as `failed`. Leave it off where bytes are counted or resumed
  /// by their position: a stream that is cut inside gzip's framing may end as `complete`.
  bool accept_gzip = false;

  /// Asked at least ten times a second while the exchange is under way, on the thread that called
  /// `send`; true ends it as `aborted`. Empty: never.
  std::function<bool()> should_stop = nullptr;
};

inline constexpr bool is_success(int status) { return status >= 200 && status <= 299; }

struct ResponseHead {
  int status = 0;  ///< 200 to 999; 0 as long as no whole head has arrived.
  ResponseHeaders headers = {};
};

/// Receives a response as it arrives, on the thread that called `send`. Returning false ends the
/// exchange there and then, as `aborted`; so does throwing, and `send` throws the same error on.
class ResponseSink {
 public:
  virtual ~ResponseSink() = default;
  ResponseSink(const ResponseSink&) = delete;
  ResponseSink& operator=(const ResponseSink&) = delete;

  /// The status and all headers, once, before the first byte of the body. Interim (1xx) responses
  /// are not seen.
  virtual bool head(const ResponseHead& /*head*/) { return true; }

  /// The next bytes of the body, decoded. They may stop short of the end: only `complete` says that
  /// the body is whole, and where the server gave neither length nor chunks not even that.
  virtual bool body(std::string_view bytes) = 0;

 protected:
  ResponseSink() = default;
};

enum class Ending {
  complete,   ///< A response arrived, whatever its status.
  dropped,    ///< No connection, or one that broke; a look-up that failed. May work the next time.
  timed_out,  ///< One of the two timeouts ran out.
  failed,     ///< Anything else, such as a certificate that is not trusted: trying again does not
              ///< help.
  refused,    ///< Nothing was sent: the request itself is malformed (see `request_problem`).
  aborted,    ///< The sink or the stop test ended it.
};

struct Outcome {
  Ending ending = Ending::complete;
  ResponseHead head = {};  ///< As far as it arrived: a status does not prove a whole response.
  std::string problem =
      {};  ///< For a person, one line; no secrets; empty when complete or aborted.
};

/// Implementations: the one on libcurl (`CurlTransport`), and whatever a test puts in its place.
///
/// Threads: any number of them may call `send` at once.
class Transport {
 public:
  virtual ~Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  /// Sends the request and blocks until its response has ended, one way or the other. Redirects are
  /// not followed: they are responses like others. Throws only what sink and stop test throw,
  /// std::bad_alloc, and RuntimeError when the machinery below cannot be set up; everything that
  /// happens on the network is an outcome.
  virtual Outcome send(const Request& request, ResponseSink& sink) = 0;

 protected:
  Transport() = default;
};

/// The process's own transport: verified TLS from the machine's certificates, connections kept
/// alive and reused, the proxy variables of the environment honoured for all hosts but loopback.
/// Never destroyed, so that other threads may be in a call when the process exits.
Transport& default_transport();

/// Why a request must not be sent: control characters in a header, which would become headers of
/// their own, or in the URL, blanks in the URL or no host in it, or a malformed header name. Never
/// holds a header's value. Empty when nothing is wrong. `CurlTransport` asks this itself.
std::string request_problem(const Request& request);

}  // namespace tovana::http
