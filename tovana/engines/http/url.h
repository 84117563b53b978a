#pragma once

#include <optional>
#include <string>
#include <string_view>

/// What has to be known of a URL beside carrying it to libcurl, whose reading of it is the one
/// used.
namespace tovana::http {

/// Where a URL leads. Scheme and host are in lower case, an IPv6 host without its brackets.
struct UrlOrigin {
  std::string scheme;
  std::string host;
  std::string port;

  /// "localhost" and names below it, 127.0.0.0/8, ::1.
  bool is_loopback() const;

  /// "https://example.com:443", "http://[::1]:80".
  std::string text() const;

  bool operator==(const UrlOrigin&) const = default;
};

/// The origin of an absolute URL; none for a text that is no such URL. A relative `url` is resolved
/// against `base` when that is given.
std::optional<UrlOrigin> url_origin(const std::string& url, const std::string& base = {});

/// What `reference`, which may be relative, stands for on the page `base`: the absolute URL; none
/// when that is no URL.
std::optional<std::string> resolved_url(const std::string& reference, const std::string& base);

/// The text as one segment of a URL's path: all but letters, digits and "-._~" become %XX.
std::string percent_encoded(std::string_view text);

/// The URL for a message or a log line: as it is when it holds neither userinfo nor a query;
/// otherwise with "***" in place of user, password and the query's values. Control characters are
/// escaped.
std::string masked_url(std::string_view url);

}  // namespace tovana::http
