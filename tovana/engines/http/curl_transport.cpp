#include "tovana/engines/http/curl_transport.h"

#include <utility>

#include "tovana/base/process_once.h"
#include "tovana/engines/http/curl_exchange.h"
#include "tovana/engines/http/curl_slots.h"
#include "tovana/engines/http/sigpipe_guard.h"

namespace tovana::http {

CurlTransport::CurlTransport(Options options)
    : _options(std::move(options)), _slots(std::make_unique<CurlSlots>(*_options.clock)) {}

CurlTransport::~CurlTransport() = default;

Outcome CurlTransport::send(const Request& request, ResponseSink& sink) {
  if (std::string problem = request_problem(request); !problem.empty()) {
    return {.ending = Ending::refused, .problem = std::move(problem)};
  }
  const SigpipeGuard guard;
  const CurlSlots::Lease slot(*_slots);
  return CurlExchange(*slot, request, sink, _options.ca_file).run();
}

Transport& default_transport() {
  static constinit ProcessOnce once;
  static constinit CurlTransport* transport = nullptr;
  once.call([] { transport = new CurlTransport; });
  return *transport;  // NOLINT(clang-analyzer-core.uninitialized.UndefReturn): `call` has set it
}

}  // namespace tovana::http
