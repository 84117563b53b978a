#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <stop_token>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/waiting.h"

/// Ends a test that hangs, and says which one and what its threads wait for. Every test has it
/// (tests/CMakeLists.txt).
namespace tovana::testing {
namespace {

/// Many times what the slowest test takes under the thread sanitizer on a loaded machine.
constexpr auto kLongestTest = std::chrono::seconds(120);

/// Never destroyed: a process that a test has forked may exit, and has no such thread to join.
struct Watch {
  std::mutex mutex;
  std::condition_variable_any changed;
  std::jthread thread;
};
Watch& watch = *new Watch;

class Watchdog final : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo& test) override {
    watch.thread = std::jthread([&test](const std::stop_token& ended) {
      std::unique_lock lock(watch.mutex);
      watch.changed.wait_for(lock, ended, kLongestTest, [] { return false; });
      if (ended.stop_requested()) return;
      static_cast<void>(std::fprintf(
          stderr, "%s:%d: %s.%s hangs; its threads wait for what they tell%s\n", test.file(),
          test.line(), test.test_suite_name(), test.name(), Waiting::all().c_str()));
      _exit(1);
    });
  }
  void OnTestEnd(const ::testing::TestInfo& /*test*/) override { watch.thread = std::jthread(); }
};

[[maybe_unused]] const bool is_watching = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
  return true;
}();

}  // namespace
}  // namespace tovana::testing
