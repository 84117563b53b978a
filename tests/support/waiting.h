#pragma once

#include <list>
#include <mutex>
#include <string>
#include <utility>

namespace tovana::testing {

/// What a thread waits for while the object lives. Of a test that hangs, the watchdog says it.
class Waiting {
 public:
  explicit Waiting(std::string what) {
    const std::lock_guard lock(_mutex);
    _entry = _entries.insert(_entries.end(), std::move(what));
  }
  ~Waiting() {
    const std::lock_guard lock(_mutex);
    _entries.erase(_entry);
  }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

  /// What all threads wait for now, each behind a semicolon.
  static std::string all() {
    const std::lock_guard lock(_mutex);
    std::string all;
    for (const std::string& entry : _entries) all += "; " + entry;
    return all;
  }

 private:
  // Never destroyed: threads may wait until the very end.
  inline static std::mutex& _mutex = *new std::mutex;
  inline static std::list<std::string>& _entries = *new std::list<std::string>;

  std::list<std::string>::iterator _entry;
};

}  // namespace tovana::testing
