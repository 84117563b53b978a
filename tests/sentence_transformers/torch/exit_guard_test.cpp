#include "sentence_transformers/torch/exit_guard.h"

#include <cstdlib>
#include <semaphore>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

namespace tovana::sentence_transformers {
namespace {

/// Exits with 7 while a thread of the process is at `opening`.
template <typename Opening>
[[noreturn]] void exit_beside(const Opening& opening) {
  std::binary_semaphore is_open(0);
  std::thread([&] {
    const OpeningGuard guard;
    is_open.release();
    opening();
  }).detach();
  is_open.acquire();
  std::exit(7);
}

class ExitGuardTest : public testing::Test {
 protected:
  // Each exit in a process that has not begun to exit yet.
  ExitGuardTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(ExitGuardTest, CutsShortAnExitThatWouldWaitForAnOpening) {
  EXPECT_EXIT(
      {
        static_cast<void>(std::atexit([] { _exit(1); }));
        exit_beside([] { pause(); });
      },
      testing::ExitedWithCode(7), "");
}

TEST_F(ExitGuardTest, RunsTheHostsHandlersOnceLibtorchIsOpenAndOpensNothingAfterwards) {
  EXPECT_EXIT(
      {
        static_cast<void>(std::atexit([] {
          try {
            const OpeningGuard late;
          } catch (const std::runtime_error&) {
            _exit(8);
          }
        }));
        exit_beside([] {});
      },
      testing::ExitedWithCode(8), "");
}

}  // namespace
}  // namespace tovana::sentence_transformers
