#include "tovana/base/json_kernels.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <simdjson.h>
#include <unistd.h>

namespace tovana {
namespace {

TEST(JsonKernelsTest, AParserIsMadeAfterTheLibraryHasDestroyedItsOwn) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // In a process that has parsed nothing yet.
  const auto parse_at_exit = [] {
    // Runs after the handlers that are registered after it, which the library's are.
    static_cast<void>(std::atexit([] {
      simdjson::dom::parser parser;
      _exit(parser.parse("[1]", 3).error() == simdjson::SUCCESS ? 7 : 1);
    }));
    keep_json_kernels();
    std::exit(0);
  };
  EXPECT_EXIT(parse_at_exit(), testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace tovana
