#include "sentence_transformers/compute/workers.h"

#include <array>
#include <atomic>
#include <barrier>
#include <cstddef>
#include <functional>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tovana/base/platform.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::size_t kSteps = 40;
constexpr std::size_t kParts = 5;
constexpr std::size_t kNever = kSteps;

/// Adds up numbers in a way that only the right order of steps gets right, without a lock: what a
/// part writes is its own, and what it reads was written in the step before.
class Recurrence final : public SteppedWork {
 public:
  Recurrence(std::size_t parts, std::size_t failing_step)
      : _numbers{std::vector<std::size_t>(parts, 1), std::vector<std::size_t>(parts, 1)},
        _failing(failing_step) {}

  void run(std::size_t step, std::size_t part) override {
    if (step == _failing && part == 1) throw std::runtime_error("part 1 fails");
    std::size_t sum = step;
    for (const std::size_t number : _numbers[step % 2]) sum = (sum * 31 + number) % 1'000'003;
    _numbers[1 - step % 2][part] = sum + part;
    ++runs;
  }

  const std::vector<std::size_t>& result() const { return _numbers[kSteps % 2]; }
  std::atomic<std::size_t> runs = 0;

 private:
  std::array<std::vector<std::size_t>, 2> _numbers;  ///< Those of a step, and of the next.
  const std::size_t _failing;
};

std::vector<std::size_t> result_on(std::size_t threads) {
  Recurrence work(kParts, kNever);
  run_steps(work, kSteps, kParts, threads);
  EXPECT_EQ(work.runs, kSteps * kParts);
  return work.result();
}

TEST(WorkersTest, StepsFollowOneAnotherOnAnyNumberOfThreads) {
  const std::vector<std::size_t> alone = result_on(1);
  for (unsigned round = 0; round < 50; ++round) ASSERT_EQ(result_on(2 + round % 4U), alone);

  // More callers than processors, each with work of its own.
  std::vector<std::jthread> callers;
  for (int caller = 0; caller < 6; ++caller) {
    callers.emplace_back([&alone] {
      for (int round = 0; round < 20; ++round) ASSERT_EQ(result_on(3), alone);
    });
  }
}

TEST(WorkersTest, TheFirstFailureEndsTheWorkAndLeavesNothingBehind) {
  for (int round = 0; round < 20; ++round) {
    Recurrence work(kParts, 7);
    EXPECT_THROW(run_steps(work, kSteps, kParts, 2), std::runtime_error);
    EXPECT_LT(work.runs, 8 * kParts);
  }
  EXPECT_EQ(result_on(2), result_on(1));
  Recurrence nothing(0, kNever);
  run_steps(nothing, kSteps, 0, 2);
}

/// Two parts that each wait for the other to have begun; then `then` is called on the caller's
/// thread.
class Meeting final : public SteppedWork {
 public:
  explicit Meeting(std::function<void()> then = [] {}) : _then(std::move(then)) {}

  void run(std::size_t, std::size_t) override {
    _begun.arrive_and_wait();
    if (std::this_thread::get_id() == _caller) _then();
  }

 private:
  std::barrier<> _begun{2};
  const std::thread::id _caller = std::this_thread::get_id();
  const std::function<void()> _then;
};

void meet_in_a_forked_child() {
#ifndef __SANITIZE_THREAD__  // it allows such a child no threads
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(10);  // ends a child that hangs
    Meeting meeting;
    run_steps(meeting, 1, 2, 2);
    ::_exit(0);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
#endif
}

TEST(WorkersTest, AHelperTakesAPartAndInAChildForkedMeanwhileToo) {
  if (usable_processors() < 2) GTEST_SKIP() << "no processor for a helper";
  for (int round = 0; round < 3; ++round) {
    Meeting work(meet_in_a_forked_child);
    run_steps(work, 1, 2, 2);
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
