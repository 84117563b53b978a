#include "tovana/base/process_once.h"

#include "tovana/base/held_across_forks.h"
#include "tovana/base/mutex.h"

namespace tovana {
namespace {

/// One for all, since a fork has to take it.
constinit Mutex making;

const HeldAcrossForks<making> making_is_held_across_forks;

constinit thread_local bool is_making = false;

}  // namespace

void ProcessOnce::_call_locked(void (*make)()) {
  const auto make_unless_done = [&] {
    if (_is_done.load(std::memory_order_relaxed)) return;
    make();
    _is_done.store(true, std::memory_order_release);
  };
  if (is_making) {  // from within another one's `make`
    make_unless_done();
    return;
  }
  const LockGuard lock(making);
  struct Making {
    Making() { is_making = true; }
    ~Making() { is_making = false; }
  };
  const Making here;
  make_unless_done();
}

}  // namespace tovana
