#include "tovana/engines/hub/fetch_progress.h"

#include <memory>
#include <utility>

#include "tovana/base/held_across_forks.h"
#include "tovana/base/mutex.h"
#include "tovana/engines/hub/report_fetch_progress.h"

namespace tovana::hub {
namespace {

/// Held only for moments: no foreign code runs under it.
constinit Mutex observer_mutex;

const HeldAcrossForks<observer_mutex> observer_mutex_is_held_across_forks;

/// Never destroyed: a fetch may go on while the process exits.
struct ObserverState {
  std::shared_ptr<const FetchObserver> observer TOVANA_GUARDED_BY(observer_mutex);
};

ObserverState& observer_state() {
  static auto* const state = new ObserverState;
  return *state;
}

}  // namespace

void set_fetch_observer(FetchObserver observer) {
  auto shared = observer ? std::make_shared<const FetchObserver>(std::move(observer)) : nullptr;
  ObserverState& state = observer_state();
  // The old one leaves with `shared`, after the lock: its destructor may be anybody's code.
  const LockGuard lock(observer_mutex);
  state.observer.swap(shared);
}

void report_fetch_progress(const FetchProgress& progress) noexcept {
  try {
    std::shared_ptr<const FetchObserver> observer;
    {
      ObserverState& state = observer_state();
      const LockGuard lock(observer_mutex);
      observer = state.observer;
    }
    if (observer != nullptr) (*observer)(progress);
  } catch (...) {  // the fetch must not suffer from who watches it
  }
}

}  // namespace tovana::hub
