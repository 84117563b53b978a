#include "tovana/engines/http/curl_slots.h"

#include <cstddef>
#include <new>
#include <string>
#include <vector>

#include <unistd.h>

#include "tovana/base/libcrypto.h"
#include "tovana/base/mutex.h"
#include "tovana/engines/http/sigpipe_guard.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::http {
namespace {

constexpr std::size_t kMostIdleSlots = 16;
constexpr long kConnectionsPerSlot = 2;

void initialize_libcurl() {
  static const CURLcode result = [] {
    // Before libcurl makes the first call to libcrypto, which decides whether it cleans up at exit.
    initialize_libcrypto();
    return curl_global_init(CURL_GLOBAL_DEFAULT);
  }();
  if (result != CURLE_OK) {
    throw RuntimeError(std::string("cannot initialise libcurl: ") + curl_easy_strerror(result));
  }
}

}  // namespace

CurlSlot::CurlSlot() : multi(curl_multi_init()), easy(curl_easy_init()) {
  if (multi == nullptr || easy == nullptr) {
    curl_easy_cleanup(easy);
    curl_multi_cleanup(multi);
    throw std::bad_alloc();
  }
  curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, kConnectionsPerSlot);
}

CurlSlot::~CurlSlot() {
  const SigpipeGuard guard;  // closing a TLS connection writes to it
  curl_easy_cleanup(easy);
  curl_multi_cleanup(multi);
}

/// The idle slots of one process. A forked child finds its parent's pool here, whose sockets are
/// the parent's to use and to close, and whose lock a thread that the child does not have may hold:
/// the child leaves the pool alone and makes its own.
struct CurlSlots::Pool {
  const pid_t process = getpid();
  Mutex mutex;
  std::vector<std::unique_ptr<CurlSlot>> idle TOVANA_GUARDED_BY(mutex);

  Pool() { idle.reserve(kMostIdleSlots); }  // so that giving a slot back cannot fail

  std::unique_ptr<CurlSlot> take() {
    {
      const LockGuard lock(mutex);
      if (!idle.empty()) {
        std::unique_ptr<CurlSlot> slot = std::move(idle.back());
        idle.pop_back();
        return slot;
      }
    }
    return std::make_unique<CurlSlot>();
  }

  void give_back(std::unique_ptr<CurlSlot> slot) {
    if (process != getpid()) {
      static_cast<void>(slot.release());  // forked in the middle of a call: not ours to close
      return;
    }
    const LockGuard lock(mutex);
    if (idle.size() < kMostIdleSlots) idle.push_back(std::move(slot));
  }
};

CurlSlots::CurlSlots() : _pool(nullptr) {
  initialize_libcurl();
  _pool = new Pool;
}

CurlSlots::~CurlSlots() {
  const Pool* const pool = _pool;
  if (pool->process == getpid()) delete pool;
}

CurlSlots::Pool& CurlSlots::pool_of_this_process() {
  Pool* pool = _pool;
  if (pool->process == getpid()) return *pool;
  auto fresh = std::make_unique<Pool>();
  if (_pool.compare_exchange_strong(pool, fresh.get())) return *fresh.release();
  return *pool;  // another thread of the child was faster
}

CurlSlots::Lease::Lease(CurlSlots& slots)
    : _pool(slots.pool_of_this_process()), _slot(_pool.take()) {}

CurlSlots::Lease::~Lease() {
  curl_easy_reset(_slot->easy);  // forgets the request, its key included; keeps the connections
  _pool.give_back(std::move(_slot));
}

}  // namespace tovana::http
