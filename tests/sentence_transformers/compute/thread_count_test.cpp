#include "sentence_transformers/compute/thread_count.h"

#include <optional>
#include <thread>

#include <gtest/gtest.h>

namespace tovana::sentence_transformers {
namespace {

TEST(ThreadCountTest, AThreadKeepsTheDefaultThatItFirstComputedWith) {
  set_num_threads(3);
  std::jthread([] {
    std::jthread([] { EXPECT_EQ(threads_to_compute_on(), 3U); }).join();
    EXPECT_EQ(get_num_threads(), 3U);
    std::jthread([] { set_num_threads(5); }).join();
    EXPECT_EQ(get_num_threads(), 5U) << "asking has copied the default";
    EXPECT_EQ(threads_to_compute_on(), 5U);
    std::jthread([] { set_num_threads(7); }).join();
    EXPECT_EQ(threads_to_compute_on(), 5U);
    EXPECT_EQ(get_num_threads(), 5U);
  }).join();
  EXPECT_EQ(threads_to_compute_on(), 3U);
}

TEST(ThreadCountTest, TheEnvironmentAsksWithAPositiveNumber) {
  EXPECT_EQ(parse_omp_num_threads(" 4 ,2"), 4U);
  for (const char* const value : {"", "0", "-2", "4x", "two", ",2", "99999999999999999999"}) {
    EXPECT_EQ(parse_omp_num_threads(value), std::nullopt) << value;
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
