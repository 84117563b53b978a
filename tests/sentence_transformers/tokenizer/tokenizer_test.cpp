#include "sentence_transformers/tokenizer/tokenizer.h"

#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/mman.h>

#include "tests/support/failure_text.h"

namespace tovana::sentence_transformers {
namespace {

using namespace std::string_view_literals;
using nlohmann::json;
using Ids = std::vector<std::int32_t>;

/// Small enough to see the ids: a word's id is its place here.
constexpr const char* kVocabulary[] = {
    "[PAD]", "[UNK]", "[CLS]", "[SEP]", "[MASK]", "a", "b",  "##b", "é",       "e",  "É",
    "foo",   "Foo",   "<",     ">",     "[",      "]", "解", "i",   "i\u0307", "ab", "x"};

/// A model's files after a change, which is a merge patch of them: null removes. A text stands for
/// itself.
Tokenizer tokenizer_after(const std::string& change, const TokenizerOptions& options = {}) {
  json model = json::parse(R"({
    "tokenizer": {
      "added_tokens": [],
      "normalizer": {"type": "BertNormalizer", "lowercase": false, "strip_accents": false},
      "pre_tokenizer": {"type": "BertPreTokenizer"},
      "post_processor": {"type": "TemplateProcessing",
        "single": [{"SpecialToken": {"id": "[CLS]", "type_id": 0}},
                   {"Sequence": {"id": "A", "type_id": 0}},
                   {"SpecialToken": {"id": "[SEP]", "type_id": 0}}],
        "special_tokens": {"[CLS]": {"ids": [2]}, "[SEP]": {"ids": [3]}}},
      "model": {"type": "WordPiece", "max_input_chars_per_word": 2}},
    "config": {"tokenizer_class": "BertTokenizer"}})");
  json& vocabulary = model["tokenizer"]["model"]["vocab"];
  for (const char* const word : kVocabulary) vocabulary[word] = vocabulary.size();
  model.merge_patch(json::parse(change));
  const auto text = [&model](const char* file) {
    if (!model.contains(file)) return std::optional<std::string>();
    const json& value = model[file];
    return std::optional(value.is_string() ? value.get<std::string>() : value.dump());
  };
  TokenizerFiles files;
  files.tokenizer_json = text("tokenizer");
  files.tokenizer_config_json = text("config");
  files.special_tokens_map_json = text("special_map");
  files.added_tokens_json = text("added");
  files.config_json = text("model_config");
  files.vocab_txt = text("vocab_txt");
  return Tokenizer(std::move(files), options);
}

/// tokenizer.json is to be taken as it is, after a change.
std::string as_it_is(const std::string& tokenizer) {
  return R"({"config": {"tokenizer_class": "PreTrainedTokenizerFast", "pad_token": "[PAD]"},
             "tokenizer": )" +
         tokenizer + "}";
}

/// A text's ids, which are `ids` between the special tokens at the ends.
void expect_ids(const char* because, const std::string& change, std::string_view text, Ids ids,
                const TokenizerOptions& options = {}) {
  SCOPED_TRACE(because);
  const Tokenizer tokenizer = tokenizer_after(change, options);
  ids.insert(ids.begin(), 2);
  ids.push_back(3);
  EXPECT_EQ(tokenizer.encode(text, 100), ids);
  EXPECT_THAT(ids, testing::Each(testing::Le(tokenizer.largest_id())));
}

TEST(Tokenizer, IsWhatItsFilesSayTogether) {
  expect_ids("BertTokenizer ignores tokenizer.json but for the vocabulary", "{}", "Foo É foo a解b",
             {11, 9, 11, 5, 17, 6});
  expect_ids("its case is that of tokenizer_config.json", R"({"config": {"do_lower_case": false}})",
             "Foo É foo", {12, 10, 11});
  expect_ids("and so are its accents, which are lower-cased where they stand",
             R"({"config": {"strip_accents": false}})", "É İ", {8, 19});
  expect_ids("and the spaces around Chinese characters",
             R"({"config": {"tokenize_chinese_chars": false}})", "a解b 解", {1, 17});
  expect_ids("the model's own lower-casing comes first", R"({"config": {"do_lower_case": false}})",
             "Foo É", {11, 8}, {.lowercase_first = true});
  expect_ids("what the model asks for counts above tokenizer_config.json", "{}", "Foo É 解",
             {12, 10, 17},
             {.do_lower_case = false, .strip_accents = false, .tokenize_chinese_chars = false});
  expect_ids("another class takes tokenizer.json as it is", as_it_is("{}"), "Foo É ab abb",
             {1, 10, 20, 1});
  expect_ids("without a class the model's type decides",
             R"({"config": null, "model_config": {"model_type": "bert"}})", "Foo ab", {11, 20});
  expect_ids(
      "a huge number means no limit",
      R"({"config": "{\"model_max_length\": 1000000000000000019884624838656, \"a\": 1e400}"})",
      "foo", {11});
  expect_ids("vocab.txt serves where there is no tokenizer.json; white space ends its lines",
             R"({"tokenizer": null,
                 "vocab_txt": "[PAD]\r\n[UNK]\n[CLS] \n[SEP]\n[MASK]\na\u3000\n\nfoo\nab\nab"})",
             "foo ab a", {7, 9, 5});
  expect_ids("of equal members the last counts",
             R"({"tokenizer": "{\"model\": 0, \"model\": {\"vocab\": {\"[PAD]\": 0, \"[UNK]\": 1,)"
             R"( \"[CLS]\": 2, \"[SEP]\": 3, \"[MASK]\": 4, \"a\": 5, \"a\": 6}}}"})",
             "a", {6});
  expect_ids("special tokens are recognised in the text, to the letter", "{}", "a[SEP]b[sep] [PAD]",
             {5, 3, 6, 15, 1, 16, 0});
  expect_ids("a special token that the vocabulary lacks gets the next id",
             R"({"config": {"mask_token": "<m>"}})", "a<m>", {5, 22});
  expect_ids("the ids that the files give added tokens decide no more than their order",
             R"({"config": {"added_tokens_decoder":
                 {"900": {"content": "<2>"}, "90": {"content": "<1>"}, "9000": {"content": "ab"}}}})",
             "<1><2>xabx", {22, 23, 21, 20, 21});
  expect_ids("of equal ones the first counts, and some can never be found",
             R"({"config": {"added_tokens_decoder": {"30": {"content": ""},
                 "31": {"content": "\u0000", "normalized": true, "special": false},
                 "32": {"content": "x"}, "33": {"content": "x"}}}})",
             "a\0 x"sv, {5, 21});
  expect_ids("special_tokens_map.json beats tokenizer_config.json",
             R"({"config": {"mask_token": "foo"}, "special_map": {"mask_token": "x"}})", "axfoo",
             {5, 21, 11});
  expect_ids("unless that lists the added tokens",
             R"({"config": {"mask_token": "foo", "added_tokens_decoder": {}},
                 "special_map": {"mask_token": "x"}})",
             "axfooa", {1, 11, 5});
  expect_ids(
      "added_tokens.json counts then, and so do tokenizer.json's",
      R"({"added": {"<n>": 22}, "tokenizer": {"added_tokens": [{"id": 23, "content": "<o>"}]}})",
      "a<N><O>", {5, 22, 23});
  expect_ids("an added token is found in the normalized text or in the text as given",
             R"({"config": {"added_tokens_decoder":
                 {"22": {"content": "<É>", "normalized": true, "special": false},
                  "23": {"content": "<E>", "normalized": false},
                  "24": {"content": "a b", "normalized": true, "special": false}}}})",
             "<é><e\u0301><E><e>a\u3000b", {22, 22, 23, 22, 24});
  expect_ids("the longest of those that begin first; single words touch no word character",
             R"({"config": {"added_tokens_decoder":
                 {"22": {"content": "<x", "special": true}, "23": {"content": "<x>>", "special": true},
                  "24": {"content": "a", "single_word": true, "special": true},
                  "5": {"content": "[", "lstrip": true, "rstrip": true}}}})",
             "<x>><x>>>, b a\u200d [ a,a ab", {23, 23, 14, 1, 6, 5, 15, 5, 1, 5, 20});
}

TEST(Tokenizer, RefusesFilesThatItCannotFollow) {
  const auto configured = [](const std::string& members) {
    return R"({"config": {)" + members + "}}";
  };
  const auto in_model = [](const std::string& members) {
    return R"({"tokenizer": {"model": {)" + members + "}}}";
  };
  const std::string deep = std::string(100, '[') + std::string(100, ']');
  const std::pair<std::string, const char*> cases[] = {
      {R"({"special_map": {"a": )" + deep + "}}",
       "special_tokens_map.json: JSON nested more than 64 deep"},
      {in_model(R"("vocab": {"new": -1})"), "\"new\".*0 to 16777216"},
      {in_model(R"("vocab": {"new": 5})"), "vocab.*5 twice"},
      {configured(R"("tokenizer_class": "T5TokenizerFast")"), "\"T5TokenizerFast\".*BertTokenizer"},
      {configured(R"("tokenizer_class": "RobertaTokenizer")"), "model.*\"WordPiece\".*\"BPE\""},
      {R"({"config": "\ufeff{}"})", "tokenizer_config.json: begins with a byte-order mark"},
      {configured(R"("padding_side": "left")"), "padding_side"},
      {configured(R"("model_input_names": ["input_ids"])"), "model_input_names.*attention_mask"},
      {R"({"special_map": "{\"pad_token\": null}"})", "tokens_map.json: \"pad_token\" is null"},
      {configured(R"("cls_token": ")" + std::string(1 << 20, 'x') + "\""),
       "cls_token.*1048576 bytes"},
      {configured(R"("added_tokens_decoder": {"3": {"content": "x"}, "03": {"content": "y"}})"),
       "3 twice"},
      {R"({"tokenizer": {"padding": {"direction": "Left"}}})", "padding"},
      {as_it_is(R"({"model": {"max_input_chars_per_word": 1000000}})"), "max_input_chars_per_word"},
  };
  for (const auto& [change, fault] : cases) {
    EXPECT_THAT(failure_of([&] { tokenizer_after(change); }),
                testing::ContainsRegex(std::string("^ModelFilesError: .*") + fault))
        << change.substr(0, 200);
  }
}

TEST(Tokenizer, LosesTheBeginningOrTheEndOfALongText) {
  const std::string left = R"("tokenizer": {"truncation": {"direction": "Left"},)"
                           R"( "padding": {"direction": "Left"}})";
  const Ids beginning = {2, 5, 3};
  const Ids end = {2, 11, 3};
  const std::string sides = R"({"config": {"padding_side": "right", "truncation_side": )";
  for (const auto& [change, kept] :
       {std::pair(sides + R"("left"}})", end),
        {(sides + R"("right"}, )").append(left).append("}"), beginning},
        {(sides + "null}, ").append(left).append("}"), end}}) {
    EXPECT_EQ(tokenizer_after(change).encode("a b foo", 3), kept) << change;
  }

  // All of a text is searched at once only if it may lose its beginning. A window ends at 16384.
  for (std::size_t filled = 16378; filled < 16386; ++filled) {
    std::string text;
    while (text.size() < filled) text += "ab a b\n";
    text.replace(filled, std::string::npos, "[SEP]a  [SEP]");
    EXPECT_EQ(tokenizer_after("{}").encode(text, 99999),
              tokenizer_after(sides + R"("left"}})").encode(text, 99999))
        << filled;
  }
}

TEST(Tokenizer, TextsOfMegabytesAreReadOnceAndNoFurtherThanNeeded) {
  const Tokenizer tokenizer = tokenizer_after("{}");
  const std::size_t size = 2'000'000;
  EXPECT_EQ(tokenizer.encode(std::string(size, 'a'), 9), Ids({2, 1, 3}));
  EXPECT_EQ(tokenizer.encode(std::string(size, ' ') + 'a', 9), Ids({2, 5, 3}));
  EXPECT_EQ(tokenizer.encode(std::string(size, '['), 5), Ids({2, 15, 15, 15, 3}));
  // Of these, only the beginning can be read.
  void* const pages = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_EQ(mprotect(pages, 65536, PROT_READ | PROT_WRITE), 0);
  const std::string_view text(static_cast<char*>(std::memset(pages, ' ', 65536)), size);
  std::memset(pages, 'a', 2);
  EXPECT_EQ(tokenizer.encode(text, 3), Ids({2, 1, 3}));
  munmap(pages, size);
  EXPECT_EQ(tokenizer.encode("a", tokenizer.special_count()), Ids({2, 3}));
  EXPECT_THROW(tokenizer.encode("a", tokenizer.special_count() - 1), ValueError);
}

}  // namespace
}  // namespace tovana::sentence_transformers
