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
    const std::lock_guard lock(entries().mutex);
    entries().of_threads.push_front(std::move(what));
    _entry = entries().of_threads.begin();
  }
  ~Waiting() {
    const std::lock_guard lock(entries().mutex);
    entries().of_threads.erase(_entry);
  }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

  /// What all threads wait for now, each behind a semicolon.
  static std::string all() {
    const std::lock_guard lock(entries().mutex);
    std::string all;
    for (const std::string& entry : entries().of_threads) all += "; " + entry;
    return all;
  }

 private:
  struct Entries {
    std::mutex mutex;
    std::list<std::string> of_threads;
  };
  static Entries& entries() {
    static auto* const made = new Entries;  // never destroyed: threads may wait until the very end
    return *made;
  }

  std::list<std::string>::iterator _entry;
};

}  // namespace tovana::testing
