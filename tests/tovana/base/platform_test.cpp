#include "tovana/base/platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

namespace tovana {
namespace {

TEST(Platform, FindsTheFileThatHoldsTheCodeAndItsRunpath) {
  const std::filesystem::path file = file_of_this_component();
  EXPECT_TRUE(file.is_absolute());
  EXPECT_EQ(file, executable_file());
  EXPECT_EQ(file.filename(), "platform_test");
  const auto beside = file.parent_path() / "beside";
  EXPECT_THAT(runpath_of_this_component(), testing::ElementsAre(beside, "/installed"));
}

TEST(Platform, CountsOnlyTheProcessorsThatTheThreadMayUse) {
  cpu_set_t before;
  ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
  EXPECT_EQ(usable_processors(), static_cast<std::size_t>(CPU_COUNT(&before)));
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<std::size_t>(sched_getcpu()), &one);
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  EXPECT_EQ(usable_processors(), 1U);
  sched_setaffinity(0, sizeof before, &before);
}

TEST(Platform, TakesTheSignalThatIsPendingAndNoOther) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  EXPECT_FALSE(take_signal(signals, 0));
  raise(SIGUSR1);
  EXPECT_TRUE(take_signal(signals, 3600));
  EXPECT_FALSE(take_signal(signals, 0.01));
}

}  // namespace
}  // namespace tovana
