#include "tovana/engines/http/curl_slots.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <string>
#include <vector>

#include <poll.h>
#include <unistd.h>

#include "tovana/base/libcrypto.h"
#include "tovana/base/mutex.h"
#include "tovana/base/platform.h"
#include "tovana/base/process_once.h"
#include "tovana/engines/http/sigpipe_guard.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::http {
namespace {

constexpr std::size_t kMostIdleSlots = 64;  // a run of the tool has so many calls at once, at most
constexpr long kConnectionsPerSlot = 2;

/// Most servers close an idle connection after a minute or sooner.
constexpr double kLongestIdleS = 60;

void initialize_libcurl() {
  static constinit ProcessOnce once;
  once.call([] {
    // Before libcurl makes the first call to libcrypto, which decides whether it cleans up at exit.
    initialize_libcrypto();
    const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (result != CURLE_OK) {
      throw RuntimeError(std::string("cannot initialise libcurl: ") + curl_easy_strerror(result));
    }
  });
}

curl_socket_t open_socket(void* slot, curlsocktype /*purpose*/, curl_sockaddr* address) {
  const int opened = open_private_socket(address->family, address->socktype, address->protocol);
  auto& sockets = static_cast<CurlSlot*>(slot)->sockets;
  const auto free_place = std::ranges::find(sockets, CURL_SOCKET_BAD);
  if (opened != CURL_SOCKET_BAD && free_place != sockets.end()) *free_place = opened;
  return opened;
}

int close_socket(void* slot, curl_socket_t closed) {
  std::ranges::replace(static_cast<CurlSlot*>(slot)->sockets, closed, CURL_SOCKET_BAD);
  return ::close(closed);
}

/// Adds the sockets of an idle slot, to be asked whether their servers have closed them. Bytes that
/// have come do not mean that: TLS sends tickets for later unasked.
void append_polls(const CurlSlot& slot, std::vector<pollfd>& polls) {
  for (const curl_socket_t socket : slot.sockets) {
    if (socket != CURL_SOCKET_BAD) polls.push_back({socket, peer_closed_event(), 0});
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
  sockets.fill(CURL_SOCKET_BAD);
}

void CurlSlot::watch_sockets() noexcept {
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &open_socket);
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, static_cast<void*>(this));
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &close_socket);
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, static_cast<void*>(this));
}

CurlSlot::~CurlSlot() {
  const SigpipeGuard guard;  // closing a TLS connection writes to it
  curl_easy_cleanup(easy);
  curl_multi_cleanup(multi);
}

/// The idle slots of one process.
struct CurlSlots::Pool {
  using Slots = std::vector<std::unique_ptr<CurlSlot>>;

  const pid_t process = getpid();
  Mutex mutex;
  Slots idle TOVANA_GUARDED_BY(mutex);  ///< In the order in which they were given back.
  std::vector<pollfd> polls TOVANA_GUARDED_BY(mutex);  ///< Kept for its memory only.

  Pool() {
    idle.reserve(kMostIdleSlots);  // so that giving a slot back cannot fail
    polls.reserve(kMostIdleSlots * CurlSlot::kMostSockets);
  }

  std::unique_ptr<CurlSlot> take(double now) {
    Slots unfit;  // closed when the lock is free again
    {
      const LockGuard lock(mutex);
      unfit = _take_unfit(now);
      if (!idle.empty()) {
        std::unique_ptr<CurlSlot> slot = std::move(idle.back());
        idle.pop_back();
        return slot;
      }
    }
    return std::make_unique<CurlSlot>();
  }

  void give_back(std::unique_ptr<CurlSlot> slot, double now) {
    if (process != getpid()) {
      static_cast<void>(slot.release());  // forked in the middle of a call: not ours to close
      return;
    }
    slot->idle_since = now;
    const LockGuard lock(mutex);
    if (idle.size() < kMostIdleSlots) idle.push_back(std::move(slot));
  }

 private:
  /// The slots that have been idle for too long or have a connection that its server has closed.
  Slots _take_unfit(double now) TOVANA_REQUIRES(mutex) {
    if (idle.empty()) return {};
    polls.clear();
    for (const auto& slot : idle) append_polls(*slot, polls);
    const bool any_closed = ::poll(polls.data(), polls.size(), 0) > 0;
    const double oldest = now - kLongestIdleS;
    Slots unfit;
    if (!any_closed && idle.front()->idle_since >= oldest) return unfit;

    const auto is_closed = [&](curl_socket_t socket) TOVANA_REQUIRES(mutex) {
      return std::ranges::any_of(
          polls, [&](const pollfd& poll) { return poll.fd == socket && poll.revents != 0; });
    };
    unfit.reserve(idle.size());
    for (auto& slot : idle) {
      if (slot->idle_since < oldest || std::ranges::any_of(slot->sockets, is_closed)) {
        unfit.push_back(std::move(slot));
      }
    }
    std::erase(idle, nullptr);
    return unfit;
  }
};

CurlSlots::CurlSlots(Clock& clock) : _clock(clock) {
  initialize_libcurl();
  _pools = std::make_unique<PerProcess<Pool>>();
}

CurlSlots::~CurlSlots() = default;

CurlSlots::Lease::Lease(CurlSlots& slots)
    : _clock(slots._clock), _pool(slots._pools->get()), _slot(_pool.take(_clock.now())) {}

CurlSlots::Lease::~Lease() {
  curl_easy_reset(_slot->easy);  // forgets the request, its key included; keeps the connections
  _pool.give_back(std::move(_slot), _clock.now());
}

}  // namespace tovana::http
