// The steps of tokenizer.json, each by itself, in a tokenizer that is taken as it is.

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "sentence_transformers/tokenizer/tokenizer.h"
#include "tests/sentence_transformers/model_files.h"
#include "tests/support/failure_text.h"

namespace tovana::sentence_transformers {
namespace {

using nlohmann::json;
using Ids = std::vector<std::int32_t>;

constexpr std::int32_t kFirstWord = 4;

/// Some steps, and a model with these words; any other word is token 1.
Tokenizer tokenizer_of(const json& steps, const std::vector<std::string>& words = {}) {
  json tokenizer = json::parse(R"({
    "post_processor": {"type": "BertProcessing", "cls": ["[CLS]", 2], "sep": ["[SEP]", 3]},
    "model": {"type": "BPE", "unk_token": "[UNK]", "fuse_unk": true, "ignore_merges": true,
              "merges": [], "vocab": {"[PAD]": 0, "[UNK]": 1, "[CLS]": 2, "[SEP]": 3}}})");
  for (const std::string& word : words) {
    json& vocabulary = tokenizer["model"]["vocab"];
    vocabulary.emplace(word, vocabulary.size());
  }
  tokenizer.update(steps);
  TokenizerFiles files;
  files.tokenizer_json = tokenizer.dump();
  files.tokenizer_config_json =
      R"({"tokenizer_class": "PreTrainedTokenizerFast", "pad_token": "[PAD]"})";
  return Tokenizer(std::move(files));
}

TEST(Steps, CutTextsAsTheLibraryThatModelsWereTrainedBehindDoes) {
  for (json row :
       read_references(std::filesystem::path(TOVANA_TEST_DATA) / "tokenizer_steps.jsonl")) {
    SCOPED_TRACE(row.dump());
    const std::string text = row["text"];
    const std::vector<std::string> words = row["words"];
    const json steps = {{"normalizer", row["normalizer"]}, {"pre_tokenizer", row["pre_tokenizer"]}};
    Ids expected = {2};
    json ids = json::object();
    for (const std::string& word : words) {
      ids.emplace(word, kFirstWord + static_cast<std::int32_t>(ids.size()));
      expected.push_back(ids[word]);
    }
    expected.push_back(3);
    EXPECT_EQ(tokenizer_of(steps, words).encode(text, 100), expected);
  }
}

TEST(Steps, AreThoseOfTheTokenizersClass) {
  const std::filesystem::path data = TOVANA_TEST_DATA;
  for (json row : read_references(data / "tokenizer_classes.jsonl")) {
    const std::string text = row["text"];
    SCOPED_TRACE(row["tokenizer_config.json"].dump() + text);
    TokenizerFiles files;
    files.tokenizer_json = row["tokenizer.json"].dump();
    files.tokenizer_config_json = row["tokenizer_config.json"].dump();
    files.config_json = row["config.json"].dump();
    EXPECT_EQ(Tokenizer(std::move(files)).encode(text, 100), row["ids"].get<Ids>());
  }
}

TEST(Steps, RefuseWhatTheyCannotFollow) {
  const auto model = [](const std::string& type, const std::string& members) {
    return R"({"model": {"type": ")" + type + "\", " + members + "}}";
  };
  const auto bpe = [&](const std::string& members) {
    return model("BPE", R"("vocab": {"a": 0, "b": 1, "ab": 2}, )" + members);
  };
  const auto unigram = [&](const std::string& members) {
    return model("Unigram", R"("vocab": [["a", 0.0], ["b", -1]], )" + members);
  };
  const auto precompiled = [](const std::string& map) {
    return R"({"normalizer": {"type": "Precompiled", "precompiled_charsmap": )" + map + "}}";
  };
  const std::pair<std::string, const char*> cases[] = {
      {R"({"normalizer": {"type": "NFX"}})", "normalizer.*\"NFX\", which is not supported"},
      {R"({"normalizer": {"form": "NFC"}})", "type.*missing"},
      {R"({"normalizer": {"type": "Strip", "strip": 1}})", "\"strip\" is not known in \"Strip\""},
      {R"({"pre_tokenizer": {"type": "Sequence", "pretokenizers": [{"type": "Digits", "all": 1}]}})",
       "\"all\" is not known in \"Digits\""},
      {R"({"pre_tokenizer": {"type": "Split", "pattern": {"String": "a"}}})", "behavior.*\"\""},
      {R"({"pre_tokenizer": {"type": "Split", "behavior": "Removed", "pattern": {}}})",
       "pattern.*neither"},
      {R"({"normalizer": {"type": "Replace", "content": "", "pattern": {"String": ""}}})", "empty"},
      {R"({"pre_tokenizer": {"type": "Metaspace", "replacement": "", "split": true}})", "is empty"},
      {R"({"pre_tokenizer": {"type": "Metaspace", "replacement": "_", "prepend_scheme": "x"}})",
       "prepend_scheme.*\"x\""},
      {R"({"post_processor": null})", "post_processor.*no special token"},
      {R"({"post_processor": {"type": "TemplateProcessing", "special_tokens": {}, "single": []}})",
       "single.*text"},
      {model("WordLevel", R"("vocab": {})"), "\"WordLevel\""},
      {model("WordPiece", R"("max_input_chars_per_word": 1000000, "vocab": {})"), "chars_per_word"},
      {bpe(R"("merges": [["a", "c"]])"), "merges.*lacks \"c\""},
      {bpe(R"("merges": ["b a"])"), "merges.*lacks \"ba\""},
      {bpe(R"("merges": ["a b c"])"), "merges.*\"a b c\".*two tokens"},
      {bpe(R"("merges": [], "unk_token": "c")"), "unknown token \"c\""},
      {bpe(R"("merges": [], "dropout": 0.1)"), "dropout"},
      {unigram(R"("unk_id": null)"), "unk_id.*missing"},
      {unigram(R"("unk_id": 2)"), "unknown token"},
      {model("Unigram", R"("unk_id": 0, "vocab": [["a", "b"]])"), "no token with its score"},
      {precompiled("null"), "precompiled_charsmap.*missing"},
      {precompiled(R"("AAAAA")"), "precompiled_charsmap.*base64"},
      {precompiled(R"("/AAAAA==")"), "precompiled_charsmap.*cut off"},
      {precompiled(R"("BAAAAAAAAAD/")"), "precompiled_charsmap.*UTF-8"},
  };
  for (const auto& [change, fault] : cases) {
    EXPECT_THAT(failure_of([&] { tokenizer_of(json::parse(change)); }),
                testing::ContainsRegex(std::string("^ModelFilesError: tokenizer.json: .*") + fault))
        << change;
  }
}

TEST(Steps, RefuseExpressionsThatTheyCannotFollow) {
  const auto split_by = [](const char* expression) {
    return json{
        {"pre_tokenizer",
         {{"type", "Split"}, {"behavior", "Isolated"}, {"pattern", {{"Regex", expression}}}}}};
  };
  for (const auto& [expression, fault] : std::initializer_list<std::pair<const char*, const char*>>{
           {"a)", "too many"},
           {"(a", "lacks"},
           {"[a", "ends too soon"},
           {"[a[b]]", "within a set"},
           {"[b-a]", "range"},
           {"a|", "empty text"},
           {"(a*)*b", "repeats"},
           {"a{2}{3}", "repeats"},
           {"a{2,1}", ".2,1"},
           {"\\bx", "bx?"},
           {"\\p{Han}", "Han"},
           {"(?<=a)b", "<="},
           {"(?i:\u00e9)", "either"},
           {"(?i:s|fI)", "fi"},
           {"((a{999}){999}){9}", "too long"}}) {
    EXPECT_THAT(failure_of([&] { tokenizer_of(split_by(expression)); }),
                testing::ContainsRegex(std::string("\"Regex\" is an expression that .*") + fault))
        << expression;
  }
  // One that would take for ever gives up.
  const Tokenizer tokenizer = tokenizer_of(split_by("(?:a|aa)+b"));
  EXPECT_THAT(failure_of([&] { tokenizer.encode(std::string(100, 'a'), 100); }),
              testing::HasSubstr("takes too long"));
}

/// A long word takes another way than a short one.
TEST(Steps, LongWordsAreJoinedLikeShortOnes) {
  const Tokenizer tokenizer = tokenizer_of(json::parse(R"({"model": {"type": "BPE",
      "merges": ["a b", "b a", "ab ab", "a a"],
      "vocab": {"[PAD]": 0, "[UNK]": 1, "[CLS]": 2, "[SEP]": 3, "a": 4, "b": 5, "ab": 6, "ba": 7,
                "abab": 8, "aa": 9}}})"));
  for (const int times : {5, 100'000}) {
    std::string text = "bb";
    Ids expected = {2, 5, 5, 8, 6, 4};
    for (int i = 0; i < times; ++i) {
      text += "abababaab";
      if (i > 0) expected.insert(expected.end(), {8, 8, 4});
    }
    expected.insert(expected.end(), {6, 3});
    EXPECT_EQ(tokenizer.encode(text, text.size()), expected) << times;
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
