#include "tovana/base/logging.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/fork_at_each_allocation.h"
#include "tests/support/log_recorder.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana {
namespace {

constexpr Logger kLog("test.module");

TEST(Logging, KeepsFormatAndArgumentsApartAndRendersThem) {
  const testing::LogRecorder log;
  set_log_level(LogLevel::info);
  const std::string name = "100 % %s";
  kLog.warning("%s: %d of %d, %.0f s, %.1f, %f %%, %s and %s", name, -3, std::size_t{7}, 12.5, 0.25,
               0.5f, std::optional<std::string>(), "literal");
  kLog.debug("below the level: %s", name);
  set_log_level(LogLevel::debug);
  kLog.debug("no arguments");

  const std::vector<LogRecord> records = log.records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].logger, "test.module");
  EXPECT_EQ(records[0].level, LogLevel::warning);
  EXPECT_EQ(records[0].format, "%s: %d of %d, %.0f s, %.1f, %f %%, %s and %s");
  EXPECT_EQ(records[0].arguments,
            (std::vector<LogArgument>{name, std::int64_t{-3}, std::int64_t{7}, 12.5, 0.25, 0.5,
                                      LogArgument(), "literal"}));
  EXPECT_EQ(records[0].message(), "100 % %s: -3 of 7, 12 s, 0.2, 0.500000 %, None and literal");
  EXPECT_EQ(records[1].message(), "no arguments");
}

TEST(Logging, SurvivesASinkThatLogsReplacesItselfAndThrows) {
  const testing::LogRecorder restores_the_sink;
  std::vector<std::string> seen;
  set_log_sink([&](const LogRecord& record) {
    seen.emplace_back(record.format);
    if (record.format == "outer") {
      kLog.info("inner");  // hangs if a lock is held around a sink
      set_log_sink([&](const LogRecord& later) { seen.push_back(later.message() + "!"); });
    }
    throw std::runtime_error("sink");
  });
  kLog.info("outer");
  kLog.info("last");
  EXPECT_EQ(seen, (std::vector<std::string>{"outer", "inner", "last!"}));
}

TEST(Logging, WorksInAChildForkedAnywhereInAnotherRecord) {
  ::testing::internal::CaptureStderr();
  const auto log_in_child = [] {
    Logger("test.child").info("child");
    return 0;
  };
  const int records = testing::fork_at_each_allocation(
      [] { kLog.info("parent: %s", std::string(500, 'x')); }, log_in_child);
  const std::string written = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::ranges::count(written, '\n'), 2 * records - 1);
}

}  // namespace
}  // namespace tovana
