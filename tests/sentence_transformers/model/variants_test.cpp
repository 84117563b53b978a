// What a model's files may say in more than one way. Whatever else changes vectors is in the models
// that reference_test.cpp reads.

#include <algorithm>
#include <span>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sentence_transformers/model/sentence_transformer.h"
#include "sentence_transformers/model/transformer_config.h"
#include "tests/sentence_transformers/model_files.h"

namespace tovana::sentence_transformers {
namespace {

using nlohmann::json;
using Floats = std::vector<float>;

constexpr std::string_view kText = "Parse the header file.";

Floats encode(const ModelCopy& model, const std::vector<std::string_view>& texts) {
  const auto loaded = SentenceTransformer::load(files::ModelDirectory(model.path()));
  Floats rows(texts.size() * static_cast<std::size_t>(loaded->dimension()));
  loaded->encode(texts, false, rows.data());
  return rows;
}

TEST(VariantsTest, OfSeveralLengthsOneCounts) {
  struct Row {
    const char* sentence_bert;
    const char* tokenizer;
    std::size_t length;
  };
  for (const auto& [sentence_bert, tokenizer, length] : {
           Row{R"({"max_seq_length": 300})", "{}", 128},
           {R"({"max_seq_length": 9})", R"({"model_max_length": 5})", 9},
           {"{}", R"({"model_max_length": 5})", 5},
           {"{}", R"({"model_max_length": 1e30})", 128},
           {R"({"processing_kwargs": {"text": {"max_length": 5}}})", "{}", 5},
           {R"({"max_seq_length": 9, "processor_kwargs": {"model_max_length": 7},
                "tokenizer_args": {"model_max_length": 5}})",
            "{}", 5},
           {R"({"max_seq_length": 5, "processor_kwargs": {"model_max_length": 1e30}})", "{}", 128},
       }) {
    const ModelCopy model;
    model.patch("sentence_bert_config.json", json::parse(sentence_bert));
    model.patch("tokenizer_config.json", json::parse(tokenizer));
    const auto config = read_transformer_config(files::ModelDirectory(model.path()), true);
    EXPECT_EQ(config.max_length, length) << sentence_bert << tokenizer;
  }
}

TEST(VariantsTest, AFolderWithoutModulesIsAModelWithAPoolingOfItsOwn) {
  const auto pooled = [](const json& mode) {
    const ModelCopy model;
    model.patch("1_Pooling/config.json", {{"pooling_mode", mode}});
    return encode(model, {kText});
  };
  const Floats mean = pooled("mean");
  const ModelCopy plain;
  plain.patch("modules.json", nullptr);
  // Settings of sentence-transformers' count for nothing here.
  plain.patch("config_sentence_transformers.json",
              {{"truncate_dim", 3}, {"prompts", {{"x", "x"}}}, {"default_prompt_name", "x"}});
  plain.patch("sentence_bert_config.json", {{"max_seq_length", 3}});
  EXPECT_EQ(encode(plain, {kText}), mean);
  plain.patch("config.json", {{"architectures", {"BertForCausalLM"}}});
  EXPECT_EQ(encode(plain, {kText}), pooled("lasttoken"));
  plain.patch("config.json", {{"is_causal", false}});
  EXPECT_EQ(encode(plain, {kText}), mean);
  EXPECT_EQ(pooled(nullptr), mean);
}

TEST(VariantsTest, APromptThatHasMoreTokensThanItHasWithTheTextLeavesTheLast) {
  const ModelCopy model;
  model.patch("1_Pooling/config.json", {{"pooling_mode", "lasttoken"}});
  const Floats last = encode(model, {"hello"});
  model.patch("1_Pooling/config.json", {{"pooling_mode", "mean"}, {"include_prompt", false}});
  model.patch("config_sentence_transformers.json",
              {{"prompts", {{"x", "hel"}}}, {"default_prompt_name", "x"}});
  EXPECT_EQ(encode(model, {"lo"}), last);
}

TEST(VariantsTest, TextsBeyondARoundOfBatchesKeepTheirOrder) {
  constexpr std::size_t kWidth = 32;
  std::vector<std::string_view> texts(33'000);
  texts[0] = texts.back() = "parse";
  const Floats rows = encode(ModelCopy(), texts);
  const auto row = [&rows](std::size_t text) {
    return std::span(rows).subspan(text * kWidth, kWidth);
  };
  EXPECT_FALSE(std::ranges::equal(row(0), row(1)));
  for (std::size_t i = 2; i < texts.size(); ++i) {
    ASSERT_TRUE(std::ranges::equal(row(i), row(texts[i].empty() ? 1 : 0))) << i;
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
