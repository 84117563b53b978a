#include "tovana/engines/http/url.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>

#include "tovana/base/text.h"

namespace tovana::http {
namespace {

using CurlUrl = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

std::optional<std::string> part_of(const CurlUrl& url, CURLUPart part,
                                   unsigned flags = CURLU_DEFAULT_PORT) {
  char* text = nullptr;
  if (curl_url_get(url.get(), part, &text, flags) != CURLUE_OK) return std::nullopt;
  const std::unique_ptr<char, decltype(&curl_free)> owned(text, &curl_free);
  return std::string(text);
}

/// Null for what is not a URL. A relative `url` is read against `base`, unless that is empty.
CurlUrl parsed_url(const std::string& url, const std::string& base) {
  CurlUrl parsed(curl_url(), &curl_url_cleanup);
  if (parsed == nullptr) throw std::bad_alloc();
  // Set one after the other, the second is read relative to the first.
  if (!base.empty()) curl_url_set(parsed.get(), CURLUPART_URL, base.c_str(), 0);
  if (curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) parsed.reset();
  return parsed;
}

/// "name=value&flag" with the values masked. A part without a name may itself be a token.
std::string masked_query(std::string_view query) {
  std::string masked;
  for (;;) {
    const std::size_t end = query.find('&');
    const std::string_view part = query.substr(0, end);
    const std::size_t equals = part.find('=');
    if (equals != std::string_view::npos) masked += part.substr(0, equals + 1);
    if (!part.empty()) masked += "***";
    if (end == std::string_view::npos) return masked;
    masked += '&';
    query.remove_prefix(end + 1);
  }
}

/// Where the authority begins: behind "http://", or at the beginning of what has no scheme.
std::size_t scheme_size(std::string_view url) {
  const std::size_t end = url.find("://");
  if (end == std::string_view::npos) return 0;
  const bool is_scheme =
      std::all_of(url.begin(), url.begin() + static_cast<std::ptrdiff_t>(end), [](char letter) {
        const char lower = static_cast<char>(letter | 0x20);
        return (lower >= 'a' && lower <= 'z') || letter == '+';
      });
  return is_scheme ? end + 3 : 0;
}

/// Whether an authority is a host with or without a port, and so holds no part of a password that
/// was written into the URL as it is.
bool is_host_and_port(std::string_view authority) {
  constexpr std::string_view kDigits = "0123456789";
  const bool is_ipv6 = authority.starts_with('[');
  const std::size_t host_end =
      is_ipv6 ? authority.find(']') : std::min(authority.find(':'), authority.size());
  if (host_end == 0 || host_end == std::string_view::npos) return false;
  if (!is_ipv6 && authority.substr(0, host_end).find_first_of("@%\\") != std::string_view::npos) {
    return false;
  }
  const std::string_view port = authority.substr(is_ipv6 ? host_end + 1 : host_end);
  return port.empty() || (port[0] == ':' && port.size() > 1 && port.size() <= 6 &&
                          port.find_first_not_of(kDigits, 1) == std::string_view::npos);
}

/// What is between the scheme and the path.
std::string_view authority_of(std::string_view url) {
  const std::string_view rest = url.substr(scheme_size(url));
  return rest.substr(0, rest.find_first_of("/?#"));
}

bool is_loopback_ipv4(const in_addr& address) {
  const std::uint32_t number = ntohl(address.s_addr);
  return number >> 24U == 127 || number == INADDR_ANY;
}

bool is_loopback_ipv6(const in6_addr& address) {
  if (IN6_IS_ADDR_LOOPBACK(&address) || IN6_IS_ADDR_UNSPECIFIED(&address)) return true;
  in_addr mapped{};
  std::memcpy(&mapped, &address.s6_addr[12], sizeof mapped);
  return IN6_IS_ADDR_V4MAPPED(&address) && is_loopback_ipv4(mapped);
}

}  // namespace

bool UrlOrigin::is_loopback() const {
  in_addr ipv4{};
  in6_addr ipv6{};
  if (::inet_pton(AF_INET, host.c_str(), &ipv4) == 1) return is_loopback_ipv4(ipv4);
  if (::inet_pton(AF_INET6, host.c_str(), &ipv6) == 1) return is_loopback_ipv6(ipv6);
  std::string_view name = host;
  if (name.ends_with('.')) name.remove_suffix(1);
  return name == "localhost" || name.ends_with(".localhost");
}

std::string UrlOrigin::text() const {
  const bool is_ipv6 = host.find(':') != std::string::npos;
  return scheme + "://" + (is_ipv6 ? "[" + host + "]" : host) + ":" + port;
}

std::optional<UrlOrigin> url_origin(const std::string& url, const std::string& base) {
  const CurlUrl parsed = parsed_url(url, base);
  // libcurl takes the first part of the path for a host that is missing.
  if (parsed == nullptr || (scheme_size(url) > 0 && !names_host(url))) return std::nullopt;
  const auto scheme = part_of(parsed, CURLUPART_SCHEME);
  const auto host = part_of(parsed, CURLUPART_HOST);
  const auto port = part_of(parsed, CURLUPART_PORT);
  if (!scheme || !host || !port) return std::nullopt;
  UrlOrigin origin{ascii_lower(*scheme), ascii_lower(*host), *port};
  if (origin.host.starts_with('[') && origin.host.ends_with(']')) {
    origin.host = origin.host.substr(1, origin.host.size() - 2);
  }
  return origin;
}

std::optional<std::string> resolved_url(const std::string& reference, const std::string& base) {
  const CurlUrl parsed = parsed_url(reference, base);
  return parsed == nullptr ? std::nullopt : part_of(parsed, CURLUPART_URL, 0);
}

std::string percent_encoded(std::string_view text) {
  if (text.empty()) return {};  // libcurl takes a size of 0 for "up to the NUL"
  const std::unique_ptr<char, decltype(&curl_free)> encoded(
      curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size())), &curl_free);
  if (encoded == nullptr) throw std::bad_alloc();
  return encoded.get();
}

bool names_host(std::string_view url) {
  if (scheme_size(url) == 0) return false;
  std::string_view host = authority_of(url);
  host.remove_prefix(host.rfind('@') + 1);  // npos + 1 is 0
  return !host.empty() && host.front() != ':';
}

bool has_user(std::string_view url) {
  return authority_of(url).find('@') != std::string_view::npos;
}

std::string_view userinfo_of(std::string_view url) {
  const std::size_t start = scheme_size(url);
  std::size_t end = url.rfind('@');
  if (end == std::string_view::npos && !is_host_and_port(authority_of(url))) end = url.rfind("%40");
  if (end == std::string_view::npos || end < start) return {};
  return url.substr(start, end - start);
}

std::string_view query_of(std::string_view url) {
  const std::size_t question = url.find('?');
  if (question == std::string_view::npos) return {};
  const std::string_view query = url.substr(question + 1);
  return query.substr(0, query.find('#'));
}

std::string masked_url(std::string_view url) {
  const std::size_t start = scheme_size(url);
  const std::string_view userinfo = userinfo_of(url);
  std::string masked(url.substr(0, start));
  if (!userinfo.empty()) masked += "***";
  // Or is this a query or a fragment with an "@" in it? Then it goes on behind that.
  if (userinfo.find_first_of("?#") != std::string_view::npos) return masked;
  const std::string_view rest = url.substr(start + userinfo.size());
  const std::size_t end = std::min(rest.find('#'), rest.size());
  const std::size_t question = std::min(rest.find('?'), end);
  masked += rest.substr(0, question);
  if (question < end) masked += "?" + masked_query(rest.substr(question + 1, end - question - 1));
  // Never sent, so it is there by mistake: a key that holds a "#", perhaps.
  if (end < rest.size()) masked += "#***";
  return escape_control_characters(masked);
}

}  // namespace tovana::http
