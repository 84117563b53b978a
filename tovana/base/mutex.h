#pragma once

#include <mutex>

#include "tovana/base/thread_annotations.h"

/// The standard locks, annotated so that clang checks which state each of them guards.
namespace tovana {

/// A mutual-exclusion lock that one thread takes at most once.
class TOVANA_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() TOVANA_ACQUIRE() { _mutex.lock(); }
  void unlock() TOVANA_RELEASE() { _mutex.unlock(); }

 private:
  std::mutex _mutex;
};

/// A mutual-exclusion lock that the thread which holds it may take again.
class TOVANA_CAPABILITY("mutex") RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void lock() TOVANA_ACQUIRE() { _mutex.lock(); }
  void unlock() TOVANA_RELEASE() { _mutex.unlock(); }

 private:
  std::recursive_mutex _mutex;
};

/// Holds a lock for the length of a scope.
template <class Lock>
class TOVANA_SCOPED_CAPABILITY LockGuard {
 public:
  explicit LockGuard(Lock& lock) TOVANA_ACQUIRE(lock) : _lock(lock) { _lock.lock(); }
  ~LockGuard() TOVANA_RELEASE() { _lock.unlock(); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  Lock& _lock;
};

}  // namespace tovana
