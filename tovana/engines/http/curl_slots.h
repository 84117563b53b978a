#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <utility>

#include <curl/curl.h>

#include "tovana/base/clock.h"
#include "tovana/base/per_process.h"
#include "tovana/engines/http/tls_events.h"

namespace tovana::http {

/// A connection cache (the multi handle) and the transfer handle that runs on it. Used by one
/// thread at a time.
struct CurlSlot {
  /// libcurl keeps two, but may open some more while it tries a host's addresses.
  static constexpr std::size_t kMostSockets = 8;

  /// Throws std::bad_alloc.
  CurlSlot();
  ~CurlSlot();
  CurlSlot(const CurlSlot&) = delete;
  CurlSlot& operator=(const CurlSlot&) = delete;

  /// Has `sockets` kept by the connections that the next transfer opens and closes.
  void watch_sockets() noexcept;

  CURLM* multi;
  CURL* easy;
  TlsEvents tls;

  /// The sockets of the connections; CURL_SOCKET_BAD where there is none.
  std::array<curl_socket_t, kMostSockets> sockets;
  double idle_since = 0;  ///< A point of the pool's clock.
};

/// The slots that are not in use. The one given back last is leased first: its connections are the
/// likeliest to be alive, and those that a burst of calls has left over grow old. Each lease
/// closes, of all slots, those that nobody has leased for a minute, and those with a connection
/// that its server has closed; it costs one poll of their sockets.
class CurlSlots {
 private:
  struct Pool;

 public:
  /// Initialises libcurl and libcrypto for the process, never to be cleaned up. Throws
  /// RuntimeError.
  explicit CurlSlots(Clock& clock);
  ~CurlSlots();
  CurlSlots(const CurlSlots&) = delete;
  CurlSlots& operator=(const CurlSlots&) = delete;

  /// A slot for the length of a scope.
  class Lease {
   public:
    explicit Lease(CurlSlots& slots);
    ~Lease();
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    CurlSlot& operator*() const noexcept { return *_slot; }

   private:
    Clock& _clock;
    Pool& _pool;
    std::unique_ptr<CurlSlot> _slot;
  };

 private:
  Clock& _clock;
  std::unique_ptr<PerProcess<Pool>> _pools;  ///< None until libcurl is initialised.
};

}  // namespace tovana::http
