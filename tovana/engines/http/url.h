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

  /// "localhost" and names below it, 127.0.0.0/8, ::1, the unspecified addresses, which lead to
  /// this machine too, and IPv4 addresses of these kinds written as IPv6 ones.
  bool is_loopback() const;

  /// "https://example.com:443", "http://[::1]:80".
  std::string text() const;

  bool operator==(const UrlOrigin&) const = default;
};

/// The origin of an absolute URL; none for a text that is not one or names no host. A relative
/// `url` is resolved against `base` when that is given.
std::optional<UrlOrigin> url_origin(const std::string& url, const std::string& base = {});

/// What `reference`, which may be relative, stands for on the page `base`: the absolute URL; none
/// when that is not a URL.
std::optional<std::string> resolved_url(const std::string& reference, const std::string& base);

/// The text as one segment of a URL's path: all but letters, digits and "-._~" become %XX.
std::string percent_encoded(std::string_view text);

/// Whether a URL has a scheme, and something where its host is. libcurl takes the first part of the
/// path for a host that is missing.
bool names_host(std::string_view url);

/// Whether something that is sent as a user is in front of a URL's host.
bool has_user(std::string_view url);

/// What may be user and password in a URL, as it is written; empty when nothing may. A password may
/// have been put in without being encoded, so that the URL means something else or nothing at all:
/// everything from the scheme to the last "@" counts, wherever that is, and to the last "%40" of a
/// URL that begins with no host.
std::string_view userinfo_of(std::string_view url);

/// What is behind the first "?"; empty when there is nothing.
std::string_view query_of(std::string_view url);

/// The URL, or what was given for one, for a message or a log line: as it is when it holds no "@",
/// query or fragment; otherwise with "***" in place of everything before the last "@", the query's
/// values and the fragment. Of an "@" behind a "?" or a "#" the scheme alone is left. Control
/// characters are escaped.
std::string masked_url(std::string_view url);

}  // namespace tovana::http
