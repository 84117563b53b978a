#include "sentence_transformers/torch/exit_guard.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

#include <unistd.h>

#include "tovana/base/background_thread.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

/// The calls in flight, and whether the process has begun to exit: one word, so that a call either
/// is seen by the exit or sees it.
constexpr std::uint64_t kExiting = std::uint64_t{1} << 63;
constinit std::atomic<std::uint64_t> calls = 0;
constinit std::atomic<int> loading_calls = 0;
/// Threads that are being protected. Registering a thread-local destructor takes the lock that
/// dlopen holds, for minutes if need be, so neither begins while the other is under way.
constinit std::atomic<int> registrations = 0;
/// Whether a thread keeps the handler on top.
constinit std::atomic<bool> is_kept_on_top = false;

void cut_exit_short(int status, void* /*unused*/) {
  const std::uint64_t before = calls.fetch_or(kExiting);
  if (before == 0 || (before & kExiting) != 0) return;  // nothing was in flight, nor can be again
  // What exit does to the streams in the end. fflush(nullptr) would wait for a stream that another
  // thread holds, one that waits for input for example.
  fcloseall();
  _exit(status);
}

/// Exit handlers run in the reverse order of their registration, so one covers the library's
/// statics only from above them. It fails only without memory.
void put_handler_on_top() noexcept { static_cast<void>(on_exit(cut_exit_short, nullptr)); }

/// Thread-local objects of the exiting thread are destroyed before the first exit handler runs: the
/// one moment at which a handler comes to lie above all those that a load has registered so far.
class ThreadGuard {
 public:
  ~ThreadGuard() {
    // On other threads than the main one this is mostly just the end of the thread, and a handler
    // stays registered for ever. Where no load is going on, the one that the last load left behind
    // serves.
    if (gettid() == getpid() || loading_calls > 0) put_handler_on_top();
  }

  void touch() const noexcept {}
};

/// Keeps the handler on top while a load goes on, for the exit of threads that are not protected:
/// that may still destroy what the library has registered since the last round, but no more.
void keep_handler_on_top() noexcept {
  std::chrono::nanoseconds pause = std::chrono::microseconds(50);
  // A round costs 32 bytes for ever, so a load that takes minutes gets fewer of them.
  constexpr std::chrono::nanoseconds kLongestPause = std::chrono::milliseconds(2);
  do {
    while (loading_calls > 0) {
      put_handler_on_top();
      std::this_thread::sleep_for(pause);
      pause = std::min(pause * 10'001 / 10'000, kLongestPause);
    }
    is_kept_on_top = false;
    // A load that began just before found the thread still there and relies on it.
  } while (loading_calls > 0 && !is_kept_on_top.exchange(true));
}

void start_keeping_handler_on_top() noexcept {
  if (is_kept_on_top.exchange(true)) return;
  try {
    start_background_thread("tovana-exit", keep_handler_on_top);
  } catch (const std::exception&) {  // protected threads do without
    is_kept_on_top = false;
  }
}

/// Static initialisation runs on the main thread, unless the component itself is opened at run
/// time. It is the thread that ends most processes, often one that never embeds.
[[maybe_unused]] const bool main_thread_is_protected = (protect_exit_of_this_thread(), true);

}  // namespace

void protect_exit_of_this_thread() noexcept {
  thread_local bool is_protected = false;
  if (is_protected) return;
  ++registrations;
  if (loading_calls == 0) {
    thread_local const ThreadGuard guard;
    guard.touch();  // the first use makes it
    is_protected = true;
  }
  --registrations;
}

CallInFlight::CallInFlight(Kind kind) : _kind(kind) {
  protect_exit_of_this_thread();
  if (_kind == Kind::loading) {
    ++loading_calls;
    while (registrations != 0) std::this_thread::yield();
    start_keeping_handler_on_top();
  }
  if ((calls.fetch_add(1) & kExiting) != 0) {
    --calls;
    if (_kind == Kind::loading) --loading_calls;
    throw RuntimeError("the model library cannot be used any more: the process is exiting");
  }
}

CallInFlight::~CallInFlight() {
  if (_kind == Kind::loading) {
    put_handler_on_top();
    --loading_calls;
  }
  --calls;
}

}  // namespace tovana::sentence_transformers
