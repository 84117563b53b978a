#pragma once

#include <pthread.h>

#include "tovana/base/mutex.h"
#include "tovana/base/thread_annotations.h"

namespace tovana {

/// Makes every fork of the process wait for a lock and hold it, so that no child gets it locked by
/// a thread that it does not have. To be called when the program is loaded; the lock lives for
/// ever. Who holds it neither forks nor takes another lock of this kind.
template <Mutex& mutex>
void hold_across_forks() {
  const auto lock = []() TOVANA_NO_THREAD_SAFETY_ANALYSIS { mutex.lock(); };
  const auto unlock = []() TOVANA_NO_THREAD_SAFETY_ANALYSIS { mutex.unlock(); };
  static_cast<void>(pthread_atfork(lock, unlock, unlock));
}

}  // namespace tovana
