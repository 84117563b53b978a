#include "tovana/engines/http/url.h"

#include <memory>
#include <new>

#include <curl/curl.h>

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

/// Null for what is no URL. A relative `url` is read against `base`, unless that is empty.
CurlUrl parsed_url(const std::string& url, const std::string& base) {
  CurlUrl parsed(curl_url(), &curl_url_cleanup);
  if (parsed == nullptr) throw std::bad_alloc();
  // Set one after the other, the second is read relative to the first.
  if (!base.empty()) curl_url_set(parsed.get(), CURLUPART_URL, base.c_str(), 0);
  if (curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) parsed.reset();
  return parsed;
}

void lower_case(std::string& ascii) {
  for (char& letter : ascii) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
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

}  // namespace

bool UrlOrigin::is_loopback() const {
  return host == "localhost" || host.ends_with(".localhost") || host == "::1" ||
         (host.starts_with("127.") && host.find_first_not_of("0123456789.") == std::string::npos);
}

std::string UrlOrigin::text() const {
  const bool is_ipv6 = host.find(':') != std::string::npos;
  return scheme + "://" + (is_ipv6 ? "[" + host + "]" : host) + ":" + port;
}

std::optional<UrlOrigin> url_origin(const std::string& url, const std::string& base) {
  const CurlUrl parsed = parsed_url(url, base);
  if (parsed == nullptr) return std::nullopt;
  const auto scheme = part_of(parsed, CURLUPART_SCHEME);
  const auto host = part_of(parsed, CURLUPART_HOST);
  const auto port = part_of(parsed, CURLUPART_PORT);
  if (!scheme || !host || !port) return std::nullopt;
  UrlOrigin origin{*scheme, *host, *port};
  lower_case(origin.scheme);
  lower_case(origin.host);
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
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  constexpr std::string_view kPlain = "-._~";
  std::string encoded;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    const bool is_alphanumeric = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                                 (byte >= '0' && byte <= '9');
    if (is_alphanumeric || kPlain.find(character) != std::string_view::npos) {
      encoded += character;
    } else {
      encoded.append({'%', kDigits[byte >> 4U], kDigits[byte & 15U]});
    }
  }
  return encoded;
}

std::string masked_url(std::string_view url) {
  const std::size_t scheme_end = url.find("://");
  const std::size_t start = scheme_end == std::string_view::npos ? 0 : scheme_end + 3;
  const std::size_t authority_end = std::min(url.find_first_of("/?#", start), url.size());
  const std::string_view authority = url.substr(start, authority_end - start);
  const std::size_t at = authority.rfind('@');
  const std::size_t question = url.find('?', authority_end);
  const std::size_t fragment = std::min(url.find('#', authority_end), url.size());

  std::string masked(url.substr(0, start));
  masked += at == std::string_view::npos ? authority : "***" + std::string(authority.substr(at));
  if (question < fragment) {
    masked += url.substr(authority_end, question + 1 - authority_end);
    masked += masked_query(url.substr(question + 1, fragment - question - 1));
    masked += url.substr(fragment);
  } else {
    masked += url.substr(authority_end);
  }
  return escape_control_characters(masked);
}

}  // namespace tovana::http
