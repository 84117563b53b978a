#include "sentence_transformers/tokenizer/tokenizer.h"

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

using nlohmann::json;
using Ids = std::vector<std::int32_t>;

/// A model's files, small enough to see the ids: a word's id is its place in `kVocabulary`.
struct Model {
  static constexpr const char* kVocabulary[] = {
      "[PAD]", "[UNK]", "[CLS]", "[SEP]", "[MASK]", "a", "b",  "##b", "é",       "e",  "É",
      "foo",   "Foo",   "<",     ">",     "[",      "]", "解", "i",   "i\u0307", "ab", "x"};
  static constexpr std::int32_t kSize = 22;

  Model() {
    json vocabulary;
    for (std::int32_t id = 0; id < kSize; ++id) vocabulary[kVocabulary[id]] = id;
    tokenizer = json::parse(R"({
      "added_tokens": [],
      "normalizer": {"type": "BertNormalizer", "lowercase": false, "strip_accents": false},
      "pre_tokenizer": {"type": "BertPreTokenizer"},
      "post_processor": {"type": "TemplateProcessing",
        "single": [{"SpecialToken": {"id": "[CLS]", "type_id": 0}},
                   {"Sequence": {"id": "A", "type_id": 0}},
                   {"SpecialToken": {"id": "[SEP]", "type_id": 0}}],
        "special_tokens": {"[CLS]": {"ids": [2]}, "[SEP]": {"ids": [3]}}},
      "model": {"type": "WordPiece", "max_input_chars_per_word": 2}})");
    tokenizer["model"]["vocab"] = vocabulary;
    config = {{"tokenizer_class", "BertTokenizer"}};
  }

  /// tokenizer.json is to be taken as it is.
  void as_it_is() {
    config["tokenizer_class"] = "PreTrainedTokenizerFast";
    config["pad_token"] = "[PAD]";
  }

  Tokenizer load() const {
    const auto text = [](const json& value) {
      return value.is_null()     ? std::nullopt
             : value.is_string() ? std::optional(value.get<std::string>())
                                 : std::optional(value.dump());
    };
    TokenizerFiles files;
    files.tokenizer_json = text(tokenizer);
    files.tokenizer_config_json = text(config);
    files.special_tokens_map_json = text(special_map);
    files.added_tokens_json = text(added);
    files.config_json = text(model_config);
    files.vocab_txt = text(vocab_txt);
    return Tokenizer(std::move(files), options);
  }

  json tokenizer;  ///< Each is absent when null, and itself the file's text when a string.
  json config;
  json special_map;
  json added;
  json model_config;
  json vocab_txt;
  Tokenizer::Options options;
};

struct Expected {
  const char* because;
  std::function<void(Model&)> change;
  const char* text;
  Ids ids;  ///< Without the special tokens at the ends.
};

TEST(Tokenizer, IsWhatItsFilesSayTogether) {
  const Expected cases[] = {
      {"BertTokenizer ignores tokenizer.json but for the vocabulary",
       [](Model&) {},
       "Foo É foo a解b",
       {11, 9, 11, 5, 17, 6}},
      {"its case is that of tokenizer_config.json",
       [](Model& m) { m.config["do_lower_case"] = false; },
       "Foo É foo",
       {12, 10, 11}},
      {"and so are its accents, which are lower-cased where they stand",
       [](Model& m) { m.config["strip_accents"] = false; },
       "É İ",
       {8, 19}},
      {"and the spaces around Chinese characters",
       [](Model& m) { m.config["tokenize_chinese_chars"] = false; },
       "a解b 解",
       {1, 17}},
      {"the model's own lower-casing comes first",
       [](Model& m) {
         m.config["do_lower_case"] = false;
         m.options.lowercase_first = true;
       },
       "Foo É",
       {11, 8}},
      {"another class takes tokenizer.json as it is",
       [](Model& m) { m.as_it_is(); },
       "Foo É ab abb",
       {1, 10, 20, 1}},
      {"without a class the model's type decides",
       [](Model& m) {
         m.config = nullptr;
         m.model_config = {{"model_type", "bert"}};
       },
       "Foo ab",
       {11, 20}},
      {"vocab.txt serves where there is no tokenizer.json; white space ends its lines",
       [](Model& m) {
         m.tokenizer = nullptr;
         m.vocab_txt = "[PAD]\r\n[UNK]\n[CLS] \n[SEP]\n[MASK]\nab\u3000\n\nfoo\nab";
       },
       "foo ab",
       {7, 8}},
      {"of equal members the last counts",
       [](Model& m) {
         m.tokenizer = R"({"model": {"vocab": {"[PAD]": 0, "[UNK]": 1, "[CLS]": 2, "[SEP]": 3,
                           "[MASK]": 4, "a": 5, "a": 6}}})";
       },
       "a",
       {6}},
      {"special tokens are recognised in the text, to the letter",
       [](Model&) {},
       "a[SEP]b[sep] [PAD]",
       {5, 3, 6, 15, 1, 16, 0}},
      {"a special token that the vocabulary lacks gets the next id",
       [](Model& m) { m.config["mask_token"] = "<m>"; },
       "a<m>",
       {5, Model::kSize}},
      {"the ids that the files give added tokens decide no more than their order",
       [](Model& m) {
         m.config["added_tokens_decoder"] = json::parse(
             R"({"900": {"content": "<2>"}, "90": {"content": "<1>"}, "9000": {"content": "ab"}})");
       },
       "<1><2>xabx",
       {22, 23, 21, 20, 21}},
      {"special_tokens_map.json beats tokenizer_config.json",
       [](Model& m) {
         m.config["mask_token"] = "foo";
         m.special_map = {{"mask_token", "x"}};
       },
       "axfoo",
       {5, 21, 11}},
      {"unless that lists the added tokens",
       [](Model& m) {
         m.config["mask_token"] = "foo";
         m.config["added_tokens_decoder"] = json::object();
         m.special_map = {{"mask_token", "x"}};
       },
       "axfooa",
       {1, 11, 5}},
      {"added_tokens.json counts then, and so do tokenizer.json's",
       [](Model& m) {
         m.added = {{"<n>", 22}};
         m.tokenizer["added_tokens"] = json::parse(R"([{"id": 23, "content": "<o>"}])");
       },
       "a<N><O>",
       {5, 22, 23}},
      {"an added token is found in the normalized text or in the text as given",
       [](Model& m) {
         m.config["added_tokens_decoder"] =
             json::parse(R"({"22": {"content": "<É>", "normalized": true, "special": false},
                             "23": {"content": "<E>", "normalized": false}})");
       },
       "<é><e\u0301><E><e>",
       {22, 22, 23, 22}},
      {"the longest of those that begin first; single words touch no word character",
       [](Model& m) {
         m.config["added_tokens_decoder"] =
             json::parse(R"({"22": {"content": "<x", "special": true},
                             "23": {"content": "<x>>", "special": true},
                             "24": {"content": "a", "single_word": true, "special": true},
                             "5": {"content": "[", "lstrip": true, "rstrip": true}})");
       },
       "<x>><x>>>, b a\u200d [ a,a",
       {23, 23, 14, 1, 6, 5, 15, 5, 1, 5}},
  };
  for (const Expected& expected : cases) {
    SCOPED_TRACE(expected.because);
    Model model;
    expected.change(model);
    const Tokenizer tokenizer = model.load();
    Ids ids = tokenizer.encode(expected.text, 100);
    ASSERT_GE(ids.size(), 2U);
    EXPECT_EQ(Ids({ids.front(), ids.back()}), Ids({2, 3}));
    EXPECT_EQ(Ids(ids.begin() + 1, ids.end() - 1), expected.ids);
    EXPECT_THAT(ids, testing::Each(testing::Le(tokenizer.largest_id())));
  }
}

struct Refused {
  std::function<void(Model&)> change;
  std::vector<std::string> says;
};

TEST(Tokenizer, RefusesFilesThatItCannotFollow) {
  const auto in_model = [](const char* key, const json& value) {
    return [key, value](Model& m) { m.tokenizer["model"][key] = value; };
  };
  const auto component = [](const char* key, const char* text) {
    return [key, text](Model& m) {
      m.as_it_is();
      m.tokenizer[key] = json::parse(text);
    };
  };
  const auto configured = [](const char* key, const json& value) {
    return [key, value](Model& m) { m.config[key] = value; };
  };
  const auto vocabulary = [](const json& id) {
    return [id](Model& m) { m.tokenizer["model"]["vocab"]["new"] = id; };
  };
  const std::string deep = std::string(100, '[') + std::string(100, ']');
  const Refused cases[] = {
      {[](Model& m) { m.tokenizer = "{"; }, {"tokenizer.json"}},
      {[](Model& m) { m.tokenizer = "[]"; }, {"tokenizer.json", "object"}},
      {[](Model& m) { m.config = "\xFF"; }, {"tokenizer_config.json"}},
      {[&](Model& m) { m.special_map = "{\"a\": " + deep + "}"; }, {"special_tokens_map.json"}},
      {[](Model& m) { m.tokenizer = nullptr; }, {"vocab.txt"}},
      {[](Model& m) { m.tokenizer["model"].erase("vocab"); }, {"tokenizer.json", "vocab"}},
      {in_model("vocab", json::array({"a"})), {"tokenizer.json", "vocab", "object"}},
      {vocabulary(-1), {"\"new\"", "0 to 16777216"}},
      {vocabulary(1 << 25), {"\"new\"", "0 to 16777216"}},
      {vocabulary(30.5), {"\"new\""}},
      {vocabulary("30"), {"\"new\""}},
      {vocabulary(5), {"vocab", "5 twice"}},
      {in_model("type", "BPE"), {"\"BPE\"", "WordPiece"}},
      {[](Model& m) { m.tokenizer["model"]["vocab"].erase("[UNK]"); }, {"[UNK]"}},
      {configured("tokenizer_class", "XLMRobertaTokenizerFast"),
       {"\"XLMRobertaTokenizerFast\"", "BertTokenizer"}},
      {configured("tokenizer_class", 3), {"tokenizer_config.json", "tokenizer_class"}},
      {configured("do_lower_case", "no"), {"do_lower_case"}},
      {configured("truncation_side", "left"), {"truncation_side"}},
      {configured("padding_side", "left"), {"padding_side"}},
      {configured("split_special_tokens", true), {"split_special_tokens"}},
      {configured("cls_token", std::string(1 << 20, 'x')), {"cls_token", "1048576 bytes"}},
      {configured("added_tokens_decoder", {{"-3", {{"content", "x"}}}}), {"-3"}},
      {configured("added_tokens_decoder", {{"3", json::object()}}), {"content"}},
      {configured("added_tokens_decoder", {{"3", {{"content", "x"}}}, {"03", {{"content", "y"}}}}),
       {"3 twice"}},
      {component("added_tokens", R"([{"id": 1, "content": "x"}, {"id": 1, "content": "y"}])"),
       {"added_tokens", "1 twice"}},
      {component("truncation", R"({"direction": "Left"})"), {"truncation"}},
      {component("normalizer", R"({"type": "NFKC"})"), {"\"NFKC\"", "BertNormalizer"}},
      {component("normalizer", R"({"type": "Sequence", "normalizers": []})"), {"normalizers"}},
      {component("pre_tokenizer", R"({"type": "ByteLevel"})"), {"\"ByteLevel\""}},
      {component("post_processor", "null"), {"post_processor"}},
      {component("post_processor", R"({"type": "ByteLevel"})"), {"\"ByteLevel\""}},
      {component("post_processor", R"({"type": "TemplateProcessing", "special_tokens": {},
                                       "single": [{"Sequence": {"id": "A"}}]})"),
       {"single"}},
      {component("post_processor", R"({"type": "TemplateProcessing", "special_tokens": {},
                                       "single": [{"SpecialToken": {"id": "[CLS]"}}]})"),
       {"[CLS]"}},
      {component("post_processor", R"({"type": "BertProcessing", "cls": ["[CLS]", -1],
                                       "sep": ["[SEP]", 3]})"),
       {"cls"}},
      {[](Model& m) {
         m.as_it_is();
         m.tokenizer["model"]["max_input_chars_per_word"] = 1'000'000;
       },
       {"max_input_chars_per_word"}},
      {[](Model& m) {
         m.as_it_is();
         m.config.erase("pad_token");
       },
       {"pad_token"}},
  };
  for (const Refused& refused : cases) {
    Model model;
    refused.change(model);
    try {
      model.load();
      ADD_FAILURE() << "taken: " << testing::PrintToString(refused.says);
    } catch (const ValueError& error) {
      for (const std::string& part : refused.says) {
        EXPECT_THAT(error.what(), testing::HasSubstr(part));
      }
    }
  }
}

TEST(Tokenizer, TakesAddedTokensThatCanNeverBeFound) {
  Model model;
  model.config["added_tokens_decoder"] = json::parse(
      R"({"30": {"content": ""}, "31": {"content": "\u0000", "normalized": true, "special": false},
          "32": {"content": "x"}, "33": {"content": "x"}})");
  EXPECT_EQ(model.load().encode(std::string("a\0 x", 4), 9), Ids({2, 5, 21, 3}));
}

TEST(Tokenizer, TextsOfMegabytesAreReadOnceAndNoFurtherThanNeeded) {
  const Tokenizer tokenizer = Model().load();
  const std::size_t size = 2'000'000;
  EXPECT_EQ(tokenizer.encode(std::string(size, 'a'), 9), Ids({2, 1, 3}));
  EXPECT_EQ(tokenizer.encode(std::string(size, ' ') + 'a', 9), Ids({2, 5, 3}));
  EXPECT_EQ(tokenizer.encode(std::string(size, '['), 5), Ids({2, 15, 15, 15, 3}));
}

TEST(Tokenizer, NeedsRoomForTheSpecialTokens) {
  const Tokenizer tokenizer = Model().load();
  EXPECT_EQ(tokenizer.encode("a", tokenizer.special_count()), Ids({2, 3}));
  EXPECT_THROW(tokenizer.encode("a", tokenizer.special_count() - 1), ValueError);
}

}  // namespace
}  // namespace tovana::sentence_transformers
