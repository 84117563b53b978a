#include "tovana/engines/http/curl_errors.h"

#include <system_error>

#include "tovana/base/text.h"

namespace tovana::http {
namespace {

/// CURLE_TOO_LARGE of libcurl 8.6. The library that runs may be newer than the header.
constexpr auto kTooLarge = static_cast<CURLcode>(100);

long long_info(CURL* easy, CURLINFO info) {
  long value = 0;
  curl_easy_getinfo(easy, info, &value);
  return value;
}

/// Whether the connection to or behind a SOCKS proxy broke or did not come about. Other causes lie
/// in the request, such as its password, or in what the proxy may do, and stay.
bool may_pass(CURL* easy) {
  switch (long_info(easy, CURLINFO_PROXY_ERROR)) {
    case CURLPX_CLOSED:
    case CURLPX_RECV_ADDRESS:
    case CURLPX_RECV_AUTH:
    case CURLPX_RECV_CONNECT:
    case CURLPX_RECV_REQACK:
    case CURLPX_SEND_AUTH:
    case CURLPX_SEND_CONNECT:
    case CURLPX_SEND_REQUEST:
    case CURLPX_RESOLVE_HOST:
    case CURLPX_REPLY_CONNECTION_REFUSED:
    case CURLPX_REPLY_GENERAL_SERVER_FAILURE:
    case CURLPX_REPLY_HOST_UNREACHABLE:
    case CURLPX_REPLY_NETWORK_UNREACHABLE:
    case CURLPX_REPLY_TTL_EXPIRED:
    case CURLPX_REQUEST_FAILED:  // all that SOCKS4 says
      return true;
    default:
      return false;
  }
}

std::string system_error_text(long error) {
  return std::generic_category().message(static_cast<int>(error));
}

}  // namespace

bool is_connected(CURL* easy) {
  curl_off_t when = 0;
  curl_easy_getinfo(easy, CURLINFO_PRETRANSFER_TIME_T, &when);
  return when > 0;
}

CurlError explain(CURL* easy, CURLcode result, const char* error_text, const TlsEvents& tls) {
  const std::string detail =
      escape_control_characters(*error_text != '\0' ? error_text : curl_easy_strerror(result));
  const long system_error = long_info(easy, CURLINFO_OS_ERRNO);
  const long proxy_status = long_info(easy, CURLINFO_HTTP_CONNECTCODE);
  if (proxy_status >= 300) {
    const bool is_passing = proxy_status == 429 || (proxy_status >= 500 && proxy_status <= 599);
    return {is_passing ? Ending::dropped : Ending::failed,
            "the proxy answered HTTP " + std::to_string(proxy_status) +
                " to the request for a tunnel: check the environment's proxy variables"};
  }
  if (tls.got_fatal_alert) {
    return {Ending::failed, "the server refused the TLS connection (" + detail + ")"};
  }

  switch (result) {
    case CURLE_COULDNT_RESOLVE_PROXY:
      return {Ending::dropped,
              "the proxy's host name could not be resolved, or its URL is malformed: check the "
              "environment's proxy variables (" +
                  detail + ")"};
    case CURLE_PROXY:
      return {may_pass(easy) ? Ending::dropped : Ending::failed,
              "no connection through the proxy: check the environment's proxy variables (" +
                  detail + ")"};
    case CURLE_COULDNT_RESOLVE_HOST:
      return {
          Ending::dropped,
          "the host name could not be resolved: check the URL and the network (" + detail + ")"};
    case CURLE_COULDNT_CONNECT:
      return {Ending::dropped,
              (system_error != 0 ? system_error_text(system_error) : "no connection") +
                  ": is the server running, and is the port right? (" + detail + ")"};
    case CURLE_PARTIAL_FILE:
      return {Ending::dropped,
              "the connection broke before the end of the response (" + detail + ")"};
    case CURLE_GOT_NOTHING:
      return {Ending::dropped, "the server closed the connection without a response"};
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return {Ending::dropped, "the connection broke (" + detail + ")"};
    case CURLE_SSL_CONNECT_ERROR:
      if (tls.broke_off) {
        return {Ending::dropped, "the connection broke in the TLS handshake (" + detail + ")"};
      }
      return {Ending::failed,
              "no TLS connection: does the server speak https on this port? (" + detail + ")"};
    case CURLE_PEER_FAILED_VERIFICATION:
      return {Ending::failed,
              "the server's certificate is not valid for this URL, or not trusted "
              "on this machine (" +
                  detail + ")"};
    case CURLE_SSL_CACERT_BADFILE:
      return {Ending::failed, "the file of trusted certificates cannot be read (" + detail + ")"};
    case CURLE_URL_MALFORMAT:
      return {Ending::failed, "the URL is malformed (" + detail + ")"};
    case CURLE_UNSUPPORTED_PROTOCOL:
      return {Ending::failed,
              "not HTTP: the URL must begin with http:// or https://, and the server "
              "must speak HTTP/1 (" +
                  detail + ")"};
    case CURLE_BAD_CONTENT_ENCODING:
    case CURLE_WEIRD_SERVER_REPLY:
      return {Ending::failed, "the server sent a malformed response (" + detail + ")"};
    case CURLE_OUT_OF_MEMORY:
    case kTooLarge:
      // Either is said when one header line is longer than the 100 KB that libcurl takes.
      return {Ending::failed, "a response header of more than 100 KB, or libcurl is out of memory"};
    default:
      return {Ending::failed, detail};
  }
}

}  // namespace tovana::http
