#include "tovana/base/text.h"

#include <string>
#include <string_view>

#include <gmock/gmock.h>

namespace tovana {
namespace {

using namespace std::string_literals;

TEST(Utf8, ReplacesEachMaximalSubpartOnce) {
  struct Case {
    std::string given;
    std::string repaired;
  };
  const Case cases[] = {
      {"caf\xC3\xA9 \xF0\x9F\x98\x80", "caf\xC3\xA9 \xF0\x9F\x98\x80"},
      {"\xEF\xBF\xBD", "\uFFFD"},                        // a genuine U+FFFD stays
      {"a\0b"s, "a\0b"s},                                // NUL is a character
      {"\x80", "\uFFFD"},                                // continuation without a lead
      {"a\xC3", "a\uFFFD"},                              // cut at the end of the text
      {"\xE2\x82(", "\uFFFD("},                          // two bytes of three: one sequence
      {"\xF0\x9F\x98", "\uFFFD"},                        // three bytes of four: one sequence
      {"\xF0\x80\x80\x41", "\uFFFD\uFFFD\uFFFD\x41"},    // overlong: no byte goes with another
      {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},            // a surrogate
      {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},  // beyond U+10FFFF
      {"\xE1\x80\xE2\xF0\x91\x92\xF1\xBF\x41", "\uFFFD\uFFFD\uFFFD\uFFFD\x41"},
  };
  for (const auto& [given, repaired] : cases) {
    SCOPED_TRACE(testing::PrintToString(given));
    EXPECT_EQ(repair_utf8(given), repaired);
    EXPECT_EQ(is_well_formed_utf8(given), given == repaired);
    EXPECT_EQ(count_characters(given), count_characters(repaired));
  }
}

TEST(Utf8, FindsANonAsciiByteAtEveryPosition) {
  for (std::size_t size = 0; size < 20; ++size) {
    EXPECT_TRUE(is_ascii(std::string(size, '\x7F')));
    for (std::size_t position = 0; position < size; ++position) {
      std::string text(size, 'a');
      text[position] = '\x80';
      EXPECT_FALSE(is_ascii(text)) << size << ", " << position;
    }
  }
}

TEST(Case, IsUnicodesAndOfNoLanguage) {
  struct Case {
    std::string_view given;
    std::string_view lowered;
  };
  const Case cases[] = {
      {"I", "i"},                                    // not the Turkish dotless i
      {"\u0130", "i\u0307"},                         // İ becomes two characters
      {"\u03A3\u0391\u03A3", "\u03C3\u03B1\u03C2"},  // the last sigma is a final one
      {"\u0391\u03A3_b \u0391\u03A3.b",
       "\u03B1\u03C2_b \u03B1\u03C3.b"},                         // "." joins, "_" ends a word
      {"\u023A\u023A\u023A\u023A", "\u2C65\u2C65\u2C65\u2C65"},  // grows from 8 bytes to 12
      {"\xFF\xE2\x82", "\xFF\xE2\x82"},
  };
  for (const auto& [given, lowered] : cases) {
    std::string result = "kept ";
    append_lower_case(given, result);
    EXPECT_EQ(result, "kept " + std::string(lowered));
  }
  // Long enough to be worked through in pieces; only the last sigma ends a word.
  std::string given, lowered, result;
  for (int i = 0; i < 300'000; ++i) {
    given += "\u0391.\u03A3";
    lowered += "\u03B1.\u03C3";
  }
  lowered.replace(lowered.size() - 2, 2, "\u03C2");
  append_lower_case(given, result);
  EXPECT_TRUE(result == lowered);
}

TEST(Escape, KeepsATextOnItsLine) {
  EXPECT_EQ(escape_control_characters("a\nb\r\t\x1B[31m\x7F \u0085 \u00E9\0"s),
            "a\\nb\\r\\t\\x1b[31m\\x7f \\x85 \u00E9\\x00");
  EXPECT_EQ(escape_control_characters("\x9B\xC3"),
            "\uFFFD\uFFFD");  // raw bytes are no C1 characters
}

}  // namespace
}  // namespace tovana
