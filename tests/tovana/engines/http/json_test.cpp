#include "tovana/engines/http/json.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/failure_text.h"
#include "tests/support/fork_at_each_allocation.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::http {
namespace {

using namespace std::string_literals;
using namespace ::testing;
using namespace tovana::testing;

std::string nested(std::size_t levels) {
  return std::string(levels, '[') + "0" + std::string(levels, ']');
}

TEST(Json, RefusesWhatIsNotJsonToTheLetterAndSaysWhy) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "empty"},
      {nested(JsonReply::kDeepestNesting + 1), "levels deep"},
      {R"({"a":)" + nested(JsonReply::kDeepestNesting) + "}", "levels deep"},
      {"[1e999]", "out of range"},
      {"[18446744073709551616]", "out of range"},
      {R"({"a": "\"NaN", "b": NaN})", "not finite"},
      {"[-Infinity]", "not finite"},
      {"[\"\x80\"]", "UTF-8"},
      {R"(["\ud800"])", ""},
      {"\xEF\xBB\xBF[]", ""},
      {"[]\0"s, ""},
      {"[] []", ""},
      {"[\"line\nbreak\"]", ""},
      {"<html>", ""},
  };
  for (const auto& [text, reason] : cases) {
    SCOPED_TRACE(text.substr(0, 40));
    EXPECT_THAT(failure_of([&] { JsonReply::parse(text); }),
                AllOf(StartsWith("RuntimeError"), HasSubstr(reason)));
  }
  EXPECT_THAT(failure_of([] { JsonReply::parse(R"(["NaN", nope])"); }),
              AllOf(StartsWith("RuntimeError"), Not(HasSubstr("not finite"))));
  EXPECT_NO_THROW(JsonReply::parse(nested(JsonReply::kDeepestNesting)));
}

TEST(Json, RefusesMoreValuesThanAreWanted) {
  EXPECT_NO_THROW(JsonReply::parse("[0,[],{},0,\"long enough\"]", 8));
  EXPECT_THAT(failure_of([] { JsonReply::parse("[0,[],{},0,\"long enough\"]", 6); }),
              HasSubstr("more than 6 values"));
  std::string zeros = "[0";  // more than are counted at a time
  for (int i = 0; i < 1000; ++i) zeros += ",0";
  EXPECT_NO_THROW(JsonReply::parse(zeros + "]", 1001));
  EXPECT_THROW(JsonReply::parse(zeros + " ]", 1000), RuntimeError);
}

TEST(Json, CanBeReadInAChildForkedAnywhereInAnotherParse) {
  fork_at_each_allocation(
      [] { JsonReply::parse("[]"); },
      []() -> int {
        std::exit(JsonReply::parse("[1]").root().numbers() == std::vector<double>{1} ? 0 : 1);
      });
}

TEST(Json, ReadsNumbersExactly) {
  const JsonReply reply = JsonReply::parse(
      "[0, -0.0, 1e-999, 9007199254740993, 0.1000000000000000055511151231257827, "
      "17976931348623157e292]");
  EXPECT_THAT(reply.root().numbers(), ElementsAre(0.0, -0.0, 0.0, 9007199254740992.0, 0.1,
                                                  std::numeric_limits<double>::max()));
  EXPECT_TRUE(std::signbit(reply.root().numbers()[1]));

  const JsonReply kinds = JsonReply::parse("[-9223372036854775808, 18446744073709551615, 1e0]");
  const std::vector<JsonValue> values = kinds.root().elements();
  EXPECT_EQ(std::get<std::int64_t>(values[0].number()), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(std::get<std::uint64_t>(values[1].number()), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(std::get<double>(values[2].number()), 1.0);
  EXPECT_EQ(values[1].kind(), JsonKind::whole_number);
  EXPECT_EQ(values[2].kind(), JsonKind::real);
}

TEST(Json, TheLastOfEqualMembersCounts) {
  JsonReply parsed = JsonReply::parse(R"({"b": 1, "a": 2, "b": "\u00e9\u0000", "": [true, null]})");
  const JsonValue root = parsed.root();
  const JsonReply moved = std::move(parsed);  // the view stays good

  EXPECT_THAT(root.names(3), ElementsAre("b", "a", ""));
  EXPECT_THAT(root.names(2), ElementsAre("b", "a"));
  EXPECT_EQ(root.find("b")->string(), "\xC3\xA9\0"s);
  EXPECT_FALSE(root.find("c").has_value());
  EXPECT_TRUE(root.find("")->elements()[0].boolean());
}

TEST(Json, NamesTheKindsWhenTheyAreNotTheExpectedOnes) {
  const JsonReply reply = JsonReply::parse(R"([[1, 2, "3"], {}])");
  const std::vector<JsonValue> values = reply.root().elements();
  EXPECT_EQ(failure_of([&] { values[0].numbers(); }),
            "RuntimeError: expected a number at position 2 of an array, got a string");
  EXPECT_EQ(failure_of([&] { values[0].find("a"); }),
            "RuntimeError: expected an object, got an array");
}

}  // namespace
}  // namespace tovana::http
