#pragma once

#include <functional>

#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/failing_new.h"

namespace tovana::testing {

/// Calls `work` again and again, each time forking in the middle of another of its allocations, until
/// all have had their turn; `in_child` has to return 0 or exit with it there. Returns how often it
/// was called.
inline int fork_at_each_allocation(const std::function<void()>& work,
                                   const std::function<int()>& in_child) {
  int calls = 0;
  for (bool has_forked = true; has_forked; ++calls) {
    has_forked = false;
    const FailingNew forking(calls, [&] {
      has_forked = true;
      EXPECT_EQ(run_in_child(in_child), 0) << calls;
    });
    work();
  }
  EXPECT_GT(calls, 4);
  return calls;
}

}  // namespace tovana::testing
