#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include <curl/curl.h>

namespace tovana::http {

/// A connection cache (the multi handle) and the transfer handle that runs on it. Used by one
/// thread at a time.
struct CurlSlot {
  /// Throws std::bad_alloc.
  CurlSlot();
  ~CurlSlot();
  CurlSlot(const CurlSlot&) = delete;
  CurlSlot& operator=(const CurlSlot&) = delete;

  CURLM* multi;
  CURL* easy;
};

/// The slots that are not in use. The one given back last is leased first: its connections are the
/// likeliest to be alive, and the others can grow old and close.
class CurlSlots {
 private:
  struct Pool;

 public:
  /// Initialises libcurl and libcrypto for the process, never to be cleaned up. Throws
  /// RuntimeError.
  CurlSlots();
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
    Pool& _pool;
    std::unique_ptr<CurlSlot> _slot;
  };

 private:
  Pool& pool_of_this_process();

  std::atomic<Pool*> _pool;
};

}  // namespace tovana::http
