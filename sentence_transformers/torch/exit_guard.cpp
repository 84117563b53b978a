#include "sentence_transformers/torch/exit_guard.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <type_traits>

#include <unistd.h>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::chrono::seconds kLongestWait(1);

constinit std::timed_mutex opening;
static_assert(std::is_trivially_destructible_v<std::timed_mutex>);
// Guarded by the mutex.
constinit bool is_registered = false;
constinit bool is_exiting = false;

void wait_for_opening(int status, void*) {
  const std::unique_lock lock(opening, kLongestWait);
  if (lock.owns_lock()) {
    is_exiting = true;
    return;
  }
  // What exit does to the streams in the end. fflush(nullptr) would wait for a stream that another
  // thread holds, one that waits for input for example.
  fcloseall();
  _exit(status);
}

}  // namespace

OpeningGuard::OpeningGuard() : _lock(opening) {
  if (is_exiting) throw RuntimeError("libtorch is not opened any more: the process is exiting");
  // It fails only without memory.
  if (!is_registered) is_registered = on_exit(wait_for_opening, nullptr) == 0;
}

}  // namespace tovana::sentence_transformers
