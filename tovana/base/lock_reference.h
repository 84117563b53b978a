#pragma once

#include "tovana/base/thread_annotations.h"

namespace tovana {

/// A lock of any kind, as something to wait with. Does not own it. The analysis cannot follow a
/// lock through a pointer; the functions that take a reference say that its lock is held.
class LockReference {
 public:
  template <class Lock>
  explicit LockReference(Lock& lock)
      : _lock(&lock),
        _take([](void* held)
                  TOVANA_NO_THREAD_SAFETY_ANALYSIS { static_cast<Lock*>(held)->lock(); }),
        _let_go([](void* held)
                    TOVANA_NO_THREAD_SAFETY_ANALYSIS { static_cast<Lock*>(held)->unlock(); }) {}

  void lock() { _take(_lock); }
  void unlock() { _let_go(_lock); }

 private:
  void* _lock;
  void (*_take)(void*);
  void (*_let_go)(void*);
};

}  // namespace tovana
