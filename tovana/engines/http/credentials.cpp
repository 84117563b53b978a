#include "tovana/engines/http/credentials.h"

#include <algorithm>
#include <array>
#include <set>
#include <utility>

#include "tovana/base/logging.h"
#include "tovana/base/mutex.h"
#include "tovana/engines/http/url.h"

namespace tovana::http {
namespace {

constexpr std::array<std::string_view, 6> kCredentialWords = {"auth",   "key",    "token",
                                                              "secret", "cookie", "password"};

bool carries_credentials(std::string_view header_name) {
  const auto equal_letters = [](char one, char other) {
    return (static_cast<unsigned char>(one) | 0x20U) == static_cast<unsigned char>(other);
  };
  return std::any_of(kCredentialWords.begin(), kCredentialWords.end(), [&](std::string_view word) {
    return std::search(header_name.begin(), header_name.end(), word.begin(), word.end(),
                       equal_letters) != header_name.end();
  });
}

/// The hosts that a warning has named. Never destroyed: calls may run while the process exits.
struct WarnedHosts {
  Mutex mutex;
  std::set<std::string> hosts TOVANA_GUARDED_BY(mutex);
};

bool first_warning_for(const std::string& host) {
  static auto* const warned = new WarnedHosts;
  const LockGuard lock(warned->mutex);
  return warned->hosts.insert(host).second;
}

}  // namespace

Credentials::Credentials(const Headers& headers) {
  for (const auto& [name, value] : headers) {
    if (value.empty() || !carries_credentials(name)) continue;
    _secrets.push_back(value);
    const std::size_t blank = value.find_last_of(' ');
    if (blank != std::string::npos && blank + 1 < value.size()) {
      _secrets.push_back(value.substr(blank + 1));
    }
  }
}

std::string Credentials::masked(std::string text) const {
  for (const std::string& secret : _secrets) {
    std::string masked;
    std::size_t start = 0;
    for (std::size_t found = 0; (found = text.find(secret, start)) != std::string::npos;) {
      masked.append(text, start, found - start).append("***");
      start = found + secret.size();
    }
    masked.append(text, start);
    text = std::move(masked);
  }
  return text;
}

void warn_if_exposed(const Credentials& credentials, const std::string& url,
                     const std::string& label) {
  if (credentials.empty()) return;
  const std::optional<UrlOrigin> origin = url_origin(url);
  if (!origin || origin->scheme != "http" || origin->is_loopback()) return;
  if (!first_warning_for(origin->host)) return;
  logger("engines.http")
      .warning("%s: the key for %s is sent over plain http, where others can read it: use https",
               label, origin->host);
}

}  // namespace tovana::http
