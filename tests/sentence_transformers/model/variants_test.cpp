// What a model's configuration may say, against the same model with a plainer configuration.

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "sentence_transformers/model/sentence_transformer.h"
#include "tests/sentence_transformers/model/model_files.h"

namespace tovana::sentence_transformers {
namespace {

using nlohmann::json;

std::vector<float> encode(const ModelCopy& model, std::string_view text = "Parse the header file.",
                          bool normalize = false) {
  const auto loaded = SentenceTransformer::load(ModelDirectory(model.path()));
  std::vector<float> vector(static_cast<std::size_t>(loaded->dimension()));
  loaded->encode({&text, 1}, normalize, vector.data());
  return vector;
}

std::vector<float> encode_pooled(const json& mode) {
  const ModelCopy model("tiny_bert_cls");
  model.patch("1_Pooling/config.json", {{"pooling_mode", mode}});
  return encode(model);
}

void expect_near(const std::vector<float>& actual, const std::vector<float>& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < actual.size(); ++i) EXPECT_NEAR(actual[i], expected[i], 2e-6) << i;
}

TEST(PoolingTest, ModesAreTheirDefinitions) {
  // Three texts of one batch, of lengths that differ, so that a mode that reads a neighbour's row
  // is seen; token vectors 1, 2, 4 ... in every second place and their negatives in the others.
  TokenBatch batch;
  for (const int length : {3, 3, 1})
    batch.add(std::vector<std::int32_t>(static_cast<std::size_t>(length)));
  std::vector<float> tokens;
  for (int row = 0; row < 7; ++row) {
    tokens.push_back(std::ldexp(1.0F, row));
    tokens.push_back(-std::ldexp(1.0F, row));
  }
  const ModelCopy model("tiny_bert_cls");
  const auto pooled = [&](const char* mode, std::int64_t skipped) {
    model.write("config.json", json({{"pooling_mode", mode}}).dump());
    const Pooling pooling = Pooling::read(ModelDirectory(model.path()), 2);
    std::vector<float> rows(6);
    pooling(tokens.data(), batch, skipped, rows.data());
    return rows;
  };
  const auto root = static_cast<float>(std::sqrt(3.0));
  expect_near(pooled("cls", 0), {1, -1, 8, -8, 64, -64});
  expect_near(pooled("lasttoken", 0), {4, -4, 32, -32, 64, -64});
  expect_near(pooled("max", 0), {4, -1, 32, -8, 64, -64});
  expect_near(pooled("mean", 0), {7.F / 3, -7.F / 3, 56.F / 3, -56.F / 3, 64, -64});
  expect_near(pooled("mean_sqrt_len_tokens", 0),
              {7 / root, -7 / root, 56 / root, -56 / root, 64, -64});
  expect_near(pooled("weightedmean", 0), {17.F / 6, -17.F / 6, 136.F / 6, -136.F / 6, 64, -64});
  // Without the first two; a text that has no more than that keeps its last.
  expect_near(pooled("cls", 2), {4, -4, 32, -32, 64, -64});
  expect_near(pooled("weightedmean", 1), {16.F / 5, -16.F / 5, 128.F / 5, -128.F / 5, 64, -64});
}

TEST(VariantsTest, SeveralModesStandSideBySide) {
  std::vector<float> expected;
  for (const char* mode : {"max", "mean", "lasttoken"}) {
    const std::vector<float> part = encode_pooled(mode);
    expected.insert(expected.end(), part.begin(), part.end());
  }
  expect_near(encode_pooled({"max", "mean", "lasttoken"}), expected);

  // Before 6.0: flags, whose order in the file says nothing.
  const ModelCopy old("tiny_bert_cls");
  old.write("1_Pooling/config.json",
            R"({"word_embedding_dimension": 32, "pooling_mode_lasttoken": true,
            "pooling_mode_mean_tokens": true, "pooling_mode_max_tokens": true})");
  expect_near(encode(old), expected);
}

TEST(VariantsTest, OldNamesOfTensorsAndModulesAreKnown) {
  const ModelCopy model("tiny_bert_cls");
  const std::vector<float> expected = encode(model);
  model.edit_tensors([](json& header) {
    json renamed;
    for (const auto& [name, tensor] : header.items()) {
      std::string old = name == "__metadata__" ? name : "bert." + name;
      for (const auto& [now, before] : {std::pair("LayerNorm.weight", "LayerNorm.gamma"),
                                        std::pair("LayerNorm.bias", "LayerNorm.beta")}) {
        if (const std::size_t at = old.find(now); at != std::string::npos)
          old.replace(at, 99, before);
      }
      renamed[old] = tensor;
    }
    header = renamed;
  });
  model.write(
      "modules.json",
      R"([{"idx": 0, "name": "0", "path": "", "type": "sentence_transformers.models.Transformer"},
        {"idx": 1, "name": "1", "path": "1_Pooling", "type": "sentence_transformers.models.Pooling"}])");
  expect_near(encode(model), expected);
}

TEST(VariantsTest, WithoutAListOfModulesTheMeanIsTaken) {
  const ModelCopy model("tiny_bert_cls");
  model.remove("modules.json");
  expect_near(encode(model), encode_pooled("mean"));
}

TEST(VariantsTest, ThePromptStandsBeforeEveryText) {
  const ModelCopy model("tiny_bert_cls");
  model.patch("1_Pooling/config.json", {{"pooling_mode", "mean"}});
  const std::vector<float> expected = encode(model, "query: file");
  model.patch("config_sentence_transformers.json",
              {{"prompts", {{"query", "query: "}}}, {"default_prompt_name", "query"}});
  expect_near(encode(model, "file"), expected);

  // Left out of the pooling, all that is left of a prompt without a text is the token that ends it.
  model.patch("1_Pooling/config.json",
              {{"include_prompt", false}, {"pooling_mode", {"cls", "lasttoken"}}});
  const std::vector<float> ends = encode(model, "");
  EXPECT_EQ(std::vector<float>(ends.begin(), ends.begin() + 32),
            std::vector<float>(ends.begin() + 32, ends.end()));
}

TEST(VariantsTest, VectorsAreCutBeforeTheyAreScaled) {
  const ModelCopy model("tiny_bert_cls");
  std::vector<float> expected = encode(model);
  expected.resize(5);
  double squares = 0;
  for (const float value : expected)
    squares += static_cast<double>(value) * static_cast<double>(value);
  for (float& value : expected) value = static_cast<float>(value / std::sqrt(squares));
  model.patch("config_sentence_transformers.json", {{"truncate_dim", 5}});
  expect_near(encode(model, "Parse the header file.", true), expected);
}

TEST(VariantsTest, ModulesBehindThePoolingAreApplied) {
  const ModelCopy model("tiny_bert_cls");
  const std::vector<float> plain = encode(model);
  const std::string type = "sentence_transformers.models.";
  const auto add_module = [&](const char* name, const json& config,
                              const std::map<std::string, Floats>& tensors) {
    model.write("modules.json", json::array({{{"path", ""}, {"type", type + "Transformer"}},
                                             {{"path", "1_Pooling"}, {"type", type + "Pooling"}},
                                             {{"path", "2"}, {"type", type + name}}})
                                    .dump());
    model.write("2/config.json", config.dump());
    model.write("2/model.safetensors", safetensors(tensors));
  };

  // The first output is 2 x0 - 1, the second x1; behind ReLU, and with a residual of x2 on both.
  Floats weight = {{2, 32}, std::vector<float>(64)};
  weight.values[0] = 2;
  weight.values[33] = 1;
  Floats residual = {{2, 32}, std::vector<float>(64)};
  residual.values[2] = residual.values[34] = 1;
  add_module(
      "Dense",
      {{"in_features", 32},
       {"out_features", 2},
       {"use_residual", true},
       {"activation_function", "torch.nn.modules.activation.ReLU"}},
      {{"linear.weight", weight}, {"linear.bias", {{2}, {-1, 0}}}, {"residual.weight", residual}});
  expect_near(encode(model),
              {std::max(2 * plain[0] - 1, 0.F) + plain[2], std::max(plain[1], 0.F) + plain[2]});

  double mean = 0;
  double squares = 0;
  for (const float value : plain) mean += static_cast<double>(value) / 32;
  for (const float value : plain) squares += std::pow(static_cast<double>(value) - mean, 2) / 32;
  std::vector<float> expected;
  for (const float value : plain) {
    expected.push_back(static_cast<float>(
        3 * (static_cast<double>(value) - mean) / std::sqrt(squares + 1e-5) + 1));
  }
  add_module("LayerNorm", {{"dimension", 32}},
             {{"norm.weight", {{32}, std::vector<float>(32, 3)}},
              {"norm.bias", {{32}, std::vector<float>(32, 1)}}});
  expect_near(encode(model), expected);
}

}  // namespace
}  // namespace tovana::sentence_transformers
