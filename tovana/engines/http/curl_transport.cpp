#include "tovana/engines/http/curl_transport.h"

#include <utility>

#include "tovana/base/process_once.h"
#include "tovana/engines/http/curl_exchange.h"
#include "tovana/engines/http/curl_slots.h"
#include "tovana/engines/http/sigpipe_guard.h"
#include "tovana/engines/http/url.h"

namespace tovana::http {

CurlTransport::CurlTransport(Options options)
    : _slots(std::make_unique<CurlSlots>(*options.clock)),
      _ca_places(options.ca_places ? *std::move(options.ca_places) : system_ca_places()),
      _certificates(options.ca_file.empty() ? find_ca_certificates(_ca_places)
                                            : CaPlace{.path = std::move(options.ca_file)}) {}

CurlTransport::~CurlTransport() = default;

Outcome CurlTransport::send(const Request& request, ResponseSink& sink) {
  if (std::string problem = request_problem(request); !problem.empty()) {
    return {.ending = Ending::refused, .problem = std::move(problem)};
  }
  const std::optional<CaPlace> certificates = _certificates_for(request.url);
  if (!certificates) {
    return {.ending = Ending::failed, .problem = no_ca_certificates_text(_ca_places)};
  }
  const SigpipeGuard guard;
  const CurlSlots::Lease slot(*_slots);
  return CurlExchange(*slot, request, sink, *certificates).run();
}

std::optional<CaPlace> CurlTransport::_certificates_for(const std::string& url) const {
  if (_certificates) return _certificates;
  const std::optional<UrlOrigin> origin = url_origin(url);
  if (origin && origin->scheme == "https") return find_ca_certificates(_ca_places);
  return CaPlace{};
}

Transport& default_transport() {
  static constinit ProcessOnce once;
  static constinit CurlTransport* transport = nullptr;
  once.call([] { transport = new CurlTransport; });
  return *transport;  // NOLINT(clang-analyzer-core.uninitialized.UndefReturn): `call` has set it
}

}  // namespace tovana::http
