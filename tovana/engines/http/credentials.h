#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tovana/base/environment.h"
#include "tovana/engines/http/headers.h"

/// The secrets of a request, and keeping them out of sight.
namespace tovana::http {

/// What a request carries that nobody is to see: the values of headers such as Authorization and
/// X-Api-Key, and of "Bearer k" also the k alone, whole and in its words; user and password of its
/// URL and the values of its query; and the users and passwords of the proxies that the environment
/// names, also in the base64 of basic authentication. Whatever a server, a library or an environment
/// says goes through `masked` or `excerpt` on its way into a message.
///
/// Only these two work the secrets out: a call that succeeds does not pay for them.
///
/// Threads: nothing changes; any number may read. The process's environment is read at each call.
class Credentials {
 public:
  /// The process's own environment counts when `environment` is null; otherwise it has to outlive
  /// the object.
  explicit Credentials(Headers headers, std::string url = {},
                       const Environment* environment = nullptr)
      : _headers(std::move(headers)), _url(std::move(url)), _environment(environment) {}

  /// Whether the request carries no key: in no header, nor in its URL.
  bool empty() const;

  /// The text with "***" in place of every secret that it repeats, in upper or lower case, with
  /// escapes of JSON, URLs or HTML in it or without, also where the text breaks off inside the
  /// secret. Secrets of less than four characters count only where they stand as words.
  std::string masked(std::string_view text) const;

  /// The beginning of a masked text, fit for one line of a message: at most `most_bytes`, control
  /// characters escaped, with "…" for what is left out.
  std::string excerpt(std::string_view text, std::size_t most_bytes) const;

 private:
  /// Every secret, none of them empty, the longest first.
  std::vector<std::string> _secrets() const;

  Headers _headers;
  std::string _url;
  const Environment* _environment;
};

/// Warns, once a host, of a key that goes over plain http to a host that is not loopback, where
/// anyone on the way can read it. `label` names the call.
void warn_if_exposed(const Credentials& credentials, const std::string& url,
                     const std::string& label);

}  // namespace tovana::http
