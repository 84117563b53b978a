#include "tovana/engines/http/curl_exchange.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <new>
#include <optional>
#include <utility>

#include "tovana/base/text.h"
#include "tovana/engines/http/credentials.h"
#include "tovana/engines/http/curl_errors.h"
#include "tovana/engines/http/url.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::http {
namespace {

/// All header lines of a response together, interim responses and trailers included. libcurl 7.88
/// limits only the single line.
constexpr std::size_t kMostHeaderBytes = std::size_t{256} << 10U;

/// A body may be this many times larger than what was sent, once it is larger than anything that
/// compresses so well for a good reason, such as vectors of zeros.
constexpr curl_off_t kMostCompression = 100;
constexpr curl_off_t kFreelyCompressedBytes = curl_off_t{16} << 20U;

/// A large reply costs a system call each time this is full; libcurl's own 16 KB are too small for
/// the tens of megabytes of a batch.
constexpr long kReceiveBufferBytes = 512L << 10U;

/// Connections of the leased slot that have been idle for longer than this are not used again.
constexpr long kOldestIdleConnectionS = 60;

/// Bounds a wait for the network, which the network itself ends, so that a limit that does not fit
/// libcurl's milliseconds cannot overflow them.
constexpr double kLongestPollS = 60.0;

/// How often the stop test is asked while nothing moves.
constexpr double kStopTestPeriodS = 0.1;

double real_time_s() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// At least a millisecond: to libcurl 0 means no limit, and a rounded-down wait would spin.
long milliseconds(double seconds) {
  constexpr double kMost = std::numeric_limits<int>::max();
  return static_cast<long>(std::clamp(std::ceil(seconds * 1000), 1.0, kMost));
}

/// A timeout as a number of seconds above 0.
double usable(double timeout_s) { return timeout_s > 0 ? timeout_s : 0.001; }

void check(CURLcode result) {
  if (result == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (result != CURLE_OK) throw RuntimeError(std::string("libcurl: ") + curl_easy_strerror(result));
}

void check(CURLMcode result) {
  if (result == CURLM_OUT_OF_MEMORY) throw std::bad_alloc();
  if (result != CURLM_OK) {
    throw RuntimeError(std::string("libcurl: ") + curl_multi_strerror(result));
  }
}

template <class Value>
void set(CURL* easy, CURLoption option, Value value) {
  check(curl_easy_setopt(easy, option, value));
}

std::string seconds_text(double seconds) {
  std::array<char, 32> text{};
  const auto written =
      std::to_chars(text.data(), text.data() + text.size(), seconds, std::chars_format::general, 3);
  return std::string(text.data(), written.ptr) + " s";
}

}  // namespace

CurlExchange::CurlExchange(CurlSlot& slot, const Request& request, ResponseSink& sink,
                           const CaPlace& ca)
    : _slot(slot), _request(request), _sink(sink), _headers(nullptr, &curl_slist_free_all) {
  _configure(ca);
  check(curl_multi_add_handle(_slot.multi, _slot.easy));
}

CurlExchange::~CurlExchange() { curl_multi_remove_handle(_slot.multi, _slot.easy); }

void CurlExchange::_configure(const CaPlace& ca) {
  CURL* const easy = _slot.easy;
  set(easy, CURLOPT_URL, _request.url.c_str());
  _slot.watch_sockets();
  set(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  set(easy, CURLOPT_USERAGENT, "tovana-embedding/" TOVANA_VERSION);
  set(easy, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
  set(easy, CURLOPT_FOLLOWLOCATION, 0L);
  set(easy, CURLOPT_HTTP09_ALLOWED, 0L);

  switch (_request.method) {
    case Method::get:
      set(easy, CURLOPT_HTTPGET, 1L);
      break;
    case Method::post:
      // Given as a whole, libcurl can send it again when a kept-alive connection turns out dead.
      set(easy, CURLOPT_POST, 1L);
      set(easy, CURLOPT_POSTFIELDS, _request.body.empty() ? "" : _request.body.data());
      set(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(_request.body.size()));
      break;
  }
  _configure_headers();
  if (_request.accept_gzip) set(easy, CURLOPT_ACCEPT_ENCODING, "gzip");

  set(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  set(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  set(easy, CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
  _slot.tls = {};
  _slot.tls.watch(easy);
  if (!ca.path.empty()) {
    const char* const file = ca.is_directory ? nullptr : ca.path.c_str();
    const char* const directory = ca.is_directory ? ca.path.c_str() : nullptr;
    for (const CURLoption option : {CURLOPT_CAINFO, CURLOPT_PROXY_CAINFO}) set(easy, option, file);
    for (const CURLoption option : {CURLOPT_CAPATH, CURLOPT_PROXY_CAPATH}) {
      set(easy, option, directory);
    }
  }
  const std::optional<UrlOrigin> origin = url_origin(_request.url);
  if (origin && origin->is_loopback()) set(easy, CURLOPT_PROXY, "");
  set(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);

  set(easy, CURLOPT_NOSIGNAL, 1L);
  set(easy, CURLOPT_QUICK_EXIT, 1L);  // do not join a thread that hangs in a name look-up
  set(easy, CURLOPT_CONNECTTIMEOUT_MS, milliseconds(usable(_request.idle_timeout_s)));
  set(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  // Refused while the handle still has the buffer of a transfer that failed before it had a
  // connection. That one does, so it is not a failure.
  static_cast<void>(curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBufferBytes));
  set(easy, CURLOPT_MAXAGE_CONN, kOldestIdleConnectionS);

  set(easy, CURLOPT_ERRORBUFFER, _error_text.data());
  set(easy, CURLOPT_HEADERFUNCTION, &CurlExchange::_on_header);
  set(easy, CURLOPT_HEADERDATA, static_cast<void*>(this));
  set(easy, CURLOPT_WRITEFUNCTION, &CurlExchange::_on_body);
  set(easy, CURLOPT_WRITEDATA, static_cast<void*>(this));
}

void CurlExchange::_configure_headers() {
  const auto append = [this](const std::string& line) {
    curl_slist* const longer = curl_slist_append(_headers.get(), line.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    static_cast<void>(_headers.release());
    _headers.reset(longer);
  };
  // Without this libcurl asks for leave to send a large body and waits a second for the answer.
  append("Expect:");
  for (const auto& [name, value] : _request.headers) {
    // A semicolon is libcurl's way to write a header without a value; with a colon it sends none.
    const bool has_value = !trimmed(value).empty();
    append(std::string(name).append(has_value ? ": " : ";").append(has_value ? value : ""));
  }
  set(_slot.easy, CURLOPT_HTTPHEADER, _headers.get());
}

Outcome CurlExchange::run() { return _outcome_of(_drive()); }

/// Runs the transfer to its end. libcurl's own limit on the whole transfer is not used: one place
/// decides about time.
CURLcode CurlExchange::_drive() {
  const double idle_timeout = usable(_request.idle_timeout_s);
  const double total_timeout = usable(_request.total_timeout_s);
  const double error_body_timeout = usable(_request.error_body_timeout_s);
  const double start = real_time_s();
  const double longest_poll = _request.should_stop ? kStopTestPeriodS : kLongestPollS;
  double last_moved = start;
  double error_known = std::numeric_limits<double>::infinity();
  Progress last_progress{};
  for (;;) {
    int running = 0;
    check(curl_multi_perform(_slot.multi, &running));
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(_slot.multi, &left)) {
      if (message->msg == CURLMSG_DONE) return message->data.result;
    }
    if (_request.should_stop && _request.should_stop()) {
      _is_aborted = true;
      return CURLE_ABORTED_BY_CALLBACK;
    }
    const double now = real_time_s();
    if (const Progress current = _progress(); current != last_progress) {
      last_progress = current;
      last_moved = now;
    }
    if (_head_is_whole && !is_success(_head.status)) error_known = std::min(error_known, now);
    const double error_body_left = error_known + error_body_timeout - now;
    const double total_left = start + total_timeout - now;
    const double idle_left = last_moved + idle_timeout - now;
    if (total_left <= 0) {
      _expired = "not done after " + seconds_text(total_timeout);
      return CURLE_OPERATION_TIMEDOUT;
    }
    if (error_body_left <= 0) {
      _expired = "the body of the error did not come within " + seconds_text(error_body_timeout);
      return CURLE_OPERATION_TIMEDOUT;
    }
    if (idle_left <= 0) return CURLE_OPERATION_TIMEDOUT;
    const double wait = std::min({idle_left, total_left, error_body_left, longest_poll});
    check(curl_multi_poll(_slot.multi, nullptr, 0, static_cast<int>(milliseconds(wait)), nullptr));
  }
}

CurlExchange::Progress CurlExchange::_progress() const {
  const auto value_of = [this](CURLINFO info) {
    curl_off_t value = 0;
    curl_easy_getinfo(_slot.easy, info, &value);
    return value;
  };
  long request_bytes = 0;
  curl_easy_getinfo(_slot.easy, CURLINFO_REQUEST_SIZE, &request_bytes);
  return {value_of(CURLINFO_CONNECT_TIME_T),      value_of(CURLINFO_APPCONNECT_TIME_T),
          value_of(CURLINFO_SIZE_UPLOAD_T),       value_of(CURLINFO_SIZE_DOWNLOAD_T),
          static_cast<curl_off_t>(request_bytes), static_cast<curl_off_t>(_header_bytes)};
}

Outcome CurlExchange::_outcome_of(CURLcode result) {
  if (_sink_threw) std::rethrow_exception(_sink_threw);
  Outcome outcome{.head = std::move(_head)};
  if (!_head_is_whole) outcome.head = {};
  if (_is_aborted) {
    outcome.ending = Ending::aborted;
  } else if (!_refusal.empty()) {
    outcome.ending = Ending::failed;
    outcome.problem = std::move(_refusal);
  } else if (!_expired.empty()) {
    outcome.ending = Ending::timed_out;
    outcome.problem = std::move(_expired);
  } else if (result == CURLE_OPERATION_TIMEDOUT) {
    outcome.ending = Ending::timed_out;
    outcome.problem = (is_connected(_slot.easy) ? "no byte moved for " : "no connection within ") +
                      seconds_text(usable(_request.idle_timeout_s));
  } else if (result == CURLE_OK && !_head_is_whole) {
    outcome.ending = Ending::failed;
    outcome.problem = "the server sent no HTTP response that could be understood";
  } else if (result != CURLE_OK) {
    const CurlError error = explain(_slot.easy, result, _error_text.data(), _slot.tls);
    outcome.ending = error.ending;
    // libcurl quotes hosts, ports and proxies, and what it takes for them in a malformed URL.
    outcome.problem = Credentials(_request.headers, _request.url).masked(error.problem);
  }
  return outcome;
}

std::size_t CurlExchange::_on_header(const char* bytes, std::size_t one, std::size_t size,
                                     void* self) noexcept {
  auto& exchange = *static_cast<CurlExchange*>(self);
  try {
    if (exchange._header_line({bytes, one * size})) return one * size;
  } catch (...) {
    exchange._sink_threw = std::current_exception();
  }
  return 0;
}

std::size_t CurlExchange::_on_body(const char* bytes, std::size_t one, std::size_t size,
                                   void* self) noexcept {
  auto& exchange = *static_cast<CurlExchange*>(self);
  try {
    if (exchange._body_bytes({bytes, one * size})) return one * size;
  } catch (...) {
    exchange._sink_threw = std::current_exception();
  }
  return 0;
}

bool CurlExchange::_header_line(std::string_view line) {
  _header_bytes += line.size();
  if (_header_bytes > kMostHeaderBytes) {
    _refusal = "the server sent more than 256 KB of response headers";
    return false;
  }
  if (_head_is_whole) return true;  // a trailer
  if (line.starts_with("HTTP/")) {
    _head = {};
    return true;
  }
  if (!trimmed(line).empty()) return _header_field(line);

  long status = 0;
  curl_easy_getinfo(_slot.easy, CURLINFO_RESPONSE_CODE, &status);
  if (status < 200) return true;  // an interim response; the final one follows
  _head.status = static_cast<int>(status);
  _head_is_whole = true;
  if (_sink.head(_head)) return true;
  _is_aborted = true;
  return false;
}

bool CurlExchange::_body_bytes(std::string_view bytes) {
  _received += static_cast<curl_off_t>(bytes.size());
  if (_request.accept_gzip && _received > kFreelyCompressedBytes) {
    curl_off_t sent = 0;
    curl_easy_getinfo(_slot.easy, CURLINFO_SIZE_DOWNLOAD_T, &sent);
    if (_received / kMostCompression > sent) {
      _refusal = "the server sent a response compressed more than " +
                 std::to_string(kMostCompression) + " times";
      return false;
    }
  }
  if (_sink.body(bytes)) return true;
  _is_aborted = true;
  return false;
}

bool CurlExchange::_header_field(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return true;
  const std::string name(trimmed(line.substr(0, colon)));
  const std::string value(trimmed(line.substr(colon + 1)));
  if (!HeaderNameLess{}(name, "Content-Length") && !HeaderNameLess{}("Content-Length", name)) {
    const auto earlier = _head.headers.find(name);
    // libcurl goes by the last one; a proxy before us may have gone by the first.
    if (earlier != _head.headers.end() && earlier->second != value) {
      _refusal = "the server sent two different Content-Length headers";
      return false;
    }
  }
  _head.headers.emplace(name, value);
  return true;
}

}  // namespace tovana::http
