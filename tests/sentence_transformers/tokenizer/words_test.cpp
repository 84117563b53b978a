// What texts are cut into, against the models' own library and against plainer ways to the same.

#include "sentence_transformers/tokenizer/pre_tokenizers/words.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "sentence_transformers/tokenizer/byte_trie.h"
#include "sentence_transformers/tokenizer/tokenizer.h"
#include "tests/sentence_transformers/model_files.h"
#include "tovana/base/text.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

using Ids = std::vector<std::int32_t>;
using Cut = std::vector<std::pair<std::string, std::size_t>>;

Cut words_of(std::string_view text, const BertNormalizer& normalizer) {
  Cut cut;
  Words words(normalizer);
  words.for_each(text, [&](std::string_view word, std::size_t characters) {
    cut.emplace_back(word, characters);
    return true;
  });
  return cut;
}

std::string utf8_of(char32_t code_point) {
  char bytes[utf8::kLongestCharacter];
  return {bytes, utf8::encode(code_point, bytes)};
}

/// Random numbers below one.
auto numbers() {
  return [random = std::mt19937(7)](std::size_t below) mutable {
    return static_cast<std::uint32_t>(random() % below);
  };
}

/// FNV-1a over the words of "a" + character + "b" for every character there is, a line each, with
/// "|" between the words; the sums come from the models' own library. One wrong entry in the tables
/// changes them.
TEST(Words, EveryCharacterIsTreatedAsTheModelsWereTrainedWith) {
  std::string text;
  for (char32_t code_point = 0; code_point < 0x110000; ++code_point) {
    if (code_point >= 0xD800 && code_point < 0xE000) continue;
    text += "a" + utf8_of(code_point) + "b z ";  // No character gives "z" as a word of its own.
  }
  const std::pair<NormalizerOptions, std::uint64_t> cases[] = {
      {{false, true, true, true, true}, 0x87630403deca15b1},
      {{false, true, true, false, true}, 0xac0bf58430df76c1},
      {{false, false, false, true, false}, 0xc59a9ff3c6f427f0},
  };
  for (const auto& [options, expected] : cases) {
    std::uint64_t sum = 0xcbf29ce484222325;
    const auto add = [&sum](char byte) {
      sum = (sum ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    };
    const BertNormalizer normalizer(options);
    bool begins_line = true;
    Words(normalizer).for_each(text, [&](std::string_view word, std::size_t) {
      const bool ends_line = word == "z";
      if (ends_line || !begins_line) add(ends_line ? '\n' : '|');
      if (!ends_line) std::ranges::for_each(word, add);
      begins_line = ends_line;
      return true;
    });
    EXPECT_EQ(sum, expected);
  }
}

/// The text in one pass has the words of the normalized text, whatever the bytes; its ill-formed
/// parts count as everywhere in the component.
TEST(Words, OnePassIsAsGoodAsTwo) {
  auto number = numbers();
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    for (std::uint32_t left = number(40); left > 0; --left) {
      constexpr std::uint32_t kLimits[] = {0x80, 0x600, 0x10FFFF, 0x10FFFF};
      text += utf8_of(number(kLimits[number(4)]));  // surrogates too: ill-formed
      if (number(8) == 0) text += static_cast<char>(number(256));
      if (number(8) == 0) text.resize(text.size() - 1);
    }
    const std::uint32_t bits = number(32);
    const BertNormalizer normalizer(
        {(bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0, (bits & 8) != 0, (bits & 16) != 0});
    const Cut cut = words_of(text, normalizer);
    EXPECT_EQ(cut, words_of(normalizer.normalize(text), BertNormalizer()));
    EXPECT_EQ(cut, words_of(repair_utf8(text), normalizer));
    for (const auto& [word, characters] : cut) EXPECT_EQ(count_characters(word), characters);
  }
}

/// Random strings over few letters share prefixes; over all bytes they crowd the blocks.
TEST(ByteTrie, FindsWhatASearchThroughAllKeysFinds) {
  auto number = numbers();
  for (const std::size_t letters : {1U, 2U, 5U, 256U}) {
    const auto text = [&](std::size_t longest) {
      std::string result(number(longest + 1), '\0');
      for (char& byte : result) byte = static_cast<char>(number(letters));
      return result;
    };
    std::vector<std::string> keys(3000);
    for (std::string& key : keys) key = text(12);
    std::vector<ByteTrie::Entry> entries;
    std::map<std::string, std::int32_t> expected;  // Of equal keys the last counts.
    for (const std::string& key : keys) {
      entries.push_back({key, expected[key] = static_cast<std::int32_t>(entries.size())});
    }
    const ByteTrie trie(entries);
    EXPECT_EQ(trie.size(), expected.size());
    expected.erase("");
    for (const std::string& key : keys) {
      const std::string searched = key + text(3);
      const auto match = trie.longest_match(searched.data(), searched.data() + searched.size());
      std::string longest = searched;
      while (!longest.empty() && !expected.contains(longest)) longest.pop_back();
      ASSERT_EQ(match.size, longest.size());
      if (!longest.empty()) {
        ASSERT_EQ(match.value, expected[longest]);
      }
      ASSERT_EQ(trie.value_of(searched).has_value(), longest == searched && !longest.empty());
    }
  }
}

/// Every model whose references are there: each text with the model's own prompt, if it has one that
/// is put in front of all, and with each prompt that the references name.
TEST(Tokenizers, EveryReferenceTextHasItsIdsAtEveryLength) {
  const std::filesystem::path data = TOVANA_TEST_DATA;
  std::map<std::filesystem::path, std::filesystem::path> models;  // References by folders.
  for (const auto& entry : std::filesystem::directory_iterator(data / "tiny_models")) {
    models[entry.path()] = entry.path() / "reference.jsonl";
  }
  ASSERT_GE(models.size(), 20U);
#ifdef TOVANA_MINILM_DIR
  models[TOVANA_MINILM_DIR] = data / "minilm_reference.jsonl";
#endif
  const auto read = [](const std::filesystem::path& file) {
    return nlohmann::json::parse(std::ifstream(file));
  };
  for (const auto& [folder, references] : models) {
    SCOPED_TRACE(folder);
    const nlohmann::json sentence = read(folder / "sentence_bert_config.json");
    const Tokenizer tokenizer = Tokenizer::load(
        files::ModelDirectory(folder), {.lowercase_first = sentence.value("do_lower_case", false)});
    const auto expect_ids = [&](const std::string& text, const Ids& ids, std::size_t max_length) {
      ASSERT_EQ(tokenizer.encode(text, max_length), ids) << text;
      EXPECT_TRUE(tokenizer.is_special_id(ids.back()));
      EXPECT_THAT(ids, testing::Each(testing::Le(tokenizer.largest_id())));
      // A shorter limit keeps the beginning and the last token, also amid the pieces of a word.
      for (std::size_t length = tokenizer.special_count(); length < ids.size(); ++length) {
        Ids cut = ids;
        cut.erase(cut.begin() + static_cast<std::ptrdiff_t>(length) - 1, cut.end() - 1);
        ASSERT_EQ(tokenizer.encode(text, length), cut) << text;
      }
    };
    const std::size_t max_length =
        read(folder / "sentence_bert_config.json")
            .value(
                "max_seq_length",
                read(folder / "tokenizer_config.json").at("model_max_length").get<std::size_t>());
    const nlohmann::json prompts = read(folder / "config_sentence_transformers.json");
    const nlohmann::json default_prompt = prompts.value("default_prompt_name", nlohmann::json());
    for (const nlohmann::json& reference : read_references(references)) {
      const std::string text = reference.at("text");
      for (const auto& [member, ids] : reference.items()) {
        constexpr std::string_view kIds = "ids";
        constexpr std::string_view kIdsOfPrompt = "ids_prompt_";
        std::string prompt;
        if (member.starts_with(kIdsOfPrompt)) {
          prompt = prompts.at("prompts").at(member.substr(kIdsOfPrompt.size()));
        } else if (member != kIds) {
          continue;
        } else if (!default_prompt.is_null()) {
          prompt = prompts.at("prompts").at(default_prompt.get<std::string>());
        }
        expect_ids(prompt + text, ids, max_length);
      }
    }
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
