#pragma once

#include <pthread.h>

#include "tovana/base/mutex.h"
#include "tovana/base/thread_annotations.h"

namespace tovana {

/// From its making on, every fork of the process waits for a lock and holds it, so that no child
/// gets it locked by a thread that it does not have. To be made when the program is loaded; the lock
/// lives for ever. Who holds it neither forks nor takes another lock of this kind.
template <Mutex& mutex>
struct HeldAcrossForks {
  HeldAcrossForks() {
    const auto lock = []() TOVANA_NO_THREAD_SAFETY_ANALYSIS { mutex.lock(); };
    const auto unlock = []() TOVANA_NO_THREAD_SAFETY_ANALYSIS { mutex.unlock(); };
    static_cast<void>(pthread_atfork(lock, unlock, unlock));
  }
};

}  // namespace tovana
