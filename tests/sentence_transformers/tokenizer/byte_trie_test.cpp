#include "sentence_transformers/tokenizer/byte_trie.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace tovana::sentence_transformers {
namespace {

/// Random strings over few letters share prefixes; over all bytes they crowd the blocks.
TEST(ByteTrie, FindsWhatASearchThroughAllKeysFinds) {
  std::mt19937 random(7);
  const auto number = [&](std::size_t below) { return random() % below; };
  for (const std::size_t letters : {0U, 1U, 2U, 5U, 256U}) {
    const auto text = [&](std::size_t longest) {
      std::string result(number(longest + 1), '\0');
      for (char& byte : result) byte = static_cast<char>(number(std::max<std::size_t>(letters, 1)));
      return result;
    };
    std::vector<std::string> keys(letters == 0 ? 0 : 3000);  // none: an empty trie
    for (std::string& key : keys) key = text(12);
    std::vector<ByteTrie::Entry> entries;
    std::map<std::string, std::int32_t> expected;
    for (const std::string& key : keys) {
      entries.push_back({key, static_cast<std::int32_t>(entries.size())});
      expected[key] = entries.back().value;  // of equal keys the last counts
    }
    const ByteTrie trie(entries);
    EXPECT_EQ(trie.size(), expected.size());
    expected.erase("");
    for (int i = 0; i < 3000; ++i) {
      const std::string searched =
          i % 2 == 0 && !keys.empty() ? keys[number(keys.size())] + text(3) : text(14);
      std::size_t size = searched.size();
      while (size > 0 && !expected.contains(searched.substr(0, size))) --size;
      const ByteTrie::Match match =
          trie.longest_match(searched.data(), searched.data() + searched.size());
      ASSERT_EQ(match.size, size);
      if (size > 0) {
        ASSERT_EQ(match.value, expected[searched.substr(0, size)]);
      }
      const auto found = expected.find(searched);
      ASSERT_EQ(trie.value_of(searched),
                found == expected.end() ? std::nullopt : std::optional(found->second));
    }
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
