#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tovana/base/clock.h"
#include "tovana/engines/http/ca_certificates.h"
#include "tovana/engines/http/transport.h"

namespace tovana::http {

class CurlSlots;

/// The transport on libcurl. Each call leases a slot (a connection cache with its handle) and runs
/// it on the calling thread; no connection is ever shared by two threads. At most 64 idle slots,
/// with two kept-alive connections each, are kept between calls, for a minute; each call closes
/// those whose minute is over or whose server has closed them. Without a next call they stay.
///
/// HTTP/1.1; TLS 1.2 or later with certificate and host name verified; no redirects, cookies or
/// .netrc. Response headers end the exchange as `failed` beyond 256 KB in all, or when two
/// different Content-Lengths contradict each other.
///
/// After a fork the child starts without connections; it neither uses nor closes its parent's.
class CurlTransport final : public Transport {
 public:
  struct Options {
    /// A PEM file with the only certificates to trust; empty for the machine's, which are looked
    /// for when the transport is made and, when there were none, before each request over https.
    std::string ca_file = {};
    /// Where; by default `system_ca_places()`.
    std::optional<CaPlaces> ca_places = {};
    /// What the age of idle connections is measured on. It has to outlive the transport.
    Clock* clock = &system_clock();
  };

  CurlTransport() : CurlTransport(Options{}) {}
  /// Throws RuntimeError when libcurl cannot be initialised.
  explicit CurlTransport(Options options);
  /// No call may be under way.
  ~CurlTransport() override;

  Outcome send(const Request& request, ResponseSink& sink) override;

 private:
  std::optional<CaPlace> _certificates_for(const std::string& url) const;

  std::unique_ptr<CurlSlots> _slots;
  CaPlaces _ca_places;
  std::optional<CaPlace> _certificates;  ///< None: there were none.
};

}  // namespace tovana::http
