#pragma once

#include <atomic>
#include <memory>

#include <sys/types.h>
#include <unistd.h>

namespace tovana {

/// A T of this process. A forked child gets a fresh one and leaves its parent's alone, for its lock
/// may be held by a thread that the child does not have, and its sockets and threads are the
/// parent's. T can be made from nothing and has a member `const pid_t process = getpid()`.
template <class T>
class PerProcess {
 public:
  PerProcess() : _object(new T) {}
  ~PerProcess() {
    const T* const object = _object;
    if (object->process == getpid()) delete object;
  }
  PerProcess(const PerProcess&) = delete;
  PerProcess& operator=(const PerProcess&) = delete;

  T& get() {
    T* object = _object;
    if (object->process == getpid()) return *object;
    auto fresh = std::make_unique<T>();
    if (_object.compare_exchange_strong(object, fresh.get())) return *fresh.release();
    return *object;  // another thread of the child was faster
  }

 private:
  std::atomic<T*> _object;
};

}  // namespace tovana
