#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tovana/engines/http/headers.h"

/// Keys in request headers, and keeping them out of sight.
namespace tovana::http {

/// The credentials of one request: the values of headers such as Authorization and X-Api-Key, and
/// of "Bearer k" also the k alone.
class Credentials {
 public:
  explicit Credentials(const Headers& headers);

  bool empty() const noexcept { return _secrets.empty(); }

  /// The text with "***" in place of every credential that it repeats.
  std::string masked(std::string text) const;

 private:
  std::vector<std::string> _secrets;  ///< Whole values before their parts.
};

/// Warns, once a host, of a key that goes over plain http to a host that is not loopback, where
/// anyone on the way can read it. `label` names the call.
void warn_if_exposed(const Credentials& credentials, const std::string& url,
                     const std::string& label);

}  // namespace tovana::http
