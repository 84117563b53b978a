// What a model's files may say in more than one way. Whatever else changes vectors is in the models
// that reference_test.cpp reads.

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "sentence_transformers/model/native_runtime.h"
#include "sentence_transformers/model/sentence_transformer.h"
#include "sentence_transformers/model/transformer_config.h"
#include "tests/sentence_transformers/model_files.h"
#include "tests/support/failure_text.h"

namespace tovana::sentence_transformers {
namespace {

using nlohmann::json;
using Floats = std::vector<float>;

constexpr std::string_view kText = "Parse the header file.";

std::unique_ptr<const SentenceTransformer> load(const files::ModelDirectory& directory) {
  return SentenceTransformer::load(directory, NativeRuntime(best_kernels()));
}

Floats encode(const SentenceTransformer& model, const std::vector<std::string_view>& texts,
              const EncodeParameters& options = {}) {
  Floats rows(texts.size() * model.dimension());
  model.encode(texts, options, rows.data());
  return rows;
}

Floats encode(const ModelCopy& model, const std::vector<std::string_view>& texts,
              const EncodeParameters& options = {}) {
  return encode(*load(files::ModelDirectory(model.path())), texts, options);
}

TEST(VariantsTest, OfSeveralLengthsOneCounts) {
  struct Row {
    const char* sentence_bert;
    const char* tokenizer;
    std::size_t length;
    const char* model = "tiny_bert_cls";
  };
  for (const auto& [sentence_bert, tokenizer, length, name] : {
           Row{R"({"max_seq_length": 300})", "{}", 128},
           {R"({"max_seq_length": 9})", R"({"model_max_length": 5})", 9},
           {"{}", R"({"model_max_length": 5})", 5},
           {"{}", R"({"model_max_length": 1e30})", 128},
           {R"({"processing_kwargs": {"text": {"max_length": 5}}})", "{}", 5},
           {R"({"max_seq_length": 9, "processor_kwargs": {"model_max_length": 7},
                "tokenizer_args": {"model_max_length": 5}})",
            "{}", 5},
           {R"({"max_seq_length": 5, "processor_kwargs": {"model_max_length": 1e30}})", "{}", 128},
           {R"({"max_seq_length": 300})", "{}", 128, "tiny_roberta_mean"},
           {R"({"max_seq_length": 300})", "{}", 300, "tiny_gte_cls"},
           {"{}", R"({"model_max_length": 300})", 192, "tiny_gte_cls"},
       }) {
    const ModelCopy model(name);
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
  EXPECT_EQ(encode(plain, {kText}, {.prompt_name = "query"}), mean);
  EXPECT_EQ(encode(plain, {kText}), mean);
  plain.patch("config.json", {{"architectures", {"BertForCausalLM"}}});
  EXPECT_EQ(encode(plain, {kText}), pooled("lasttoken"));
  plain.patch("config.json", {{"is_causal", false}});
  EXPECT_EQ(encode(plain, {kText}), mean);
  EXPECT_EQ(pooled(nullptr), mean);
}

TEST(VariantsTest, APromptIsTheDefaultOrTheOneThatIsNamed) {
  const ModelCopy model;
  model.patch("1_Pooling/config.json", {{"pooling_mode", "mean"}});
  std::vector<std::uint32_t> count(1);
  std::vector<std::uint32_t> count_with_prompt(1);
  const Floats plain = encode(model, {"file"});
  const Floats prompted = encode(model, {"query: file"}, {.token_counts = count_with_prompt});
  model.patch("config_sentence_transformers.json",
              {{"prompts", {{"query", "query: "}, {"document", nullptr}}},
               {"default_prompt_name", "query"}});
  EXPECT_EQ(encode(model, {"file"}, {.token_counts = count}), prompted);
  EXPECT_EQ(count, count_with_prompt);
  EXPECT_EQ(encode(model, {"file"}, {.prompt_name = "document"}), plain);
  EXPECT_EQ(encode(model, {"file"}, {.prompt_name = "query", .prompt = ""}), plain);
  model.patch("config_sentence_transformers.json", {{"default_prompt_name", nullptr}});
  EXPECT_EQ(encode(model, {"file"}), plain);
  EXPECT_EQ(encode(model, {"file"}, {.prompt_name = "query"}), prompted);
  model.patch("sentence_bert_config.json", {{"max_seq_length", 3}});
  encode(model, {"file"}, {.prompt_name = "query", .token_counts = count});
  EXPECT_EQ(count.front(), 3U);
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

/// The bytes of a number in one of the types that weights may have.
std::string bytes_of(float number, std::string_view dtype) {
  const auto bits = std::bit_cast<std::uint32_t>(number);
  const double wide = number;
  std::string bytes(sizeof wide, '\0');
  std::memcpy(bytes.data(), &wide, sizeof wide);
  if (dtype == "F64") return bytes;
  std::uint32_t narrow = bits;
  if (dtype == "BF16") narrow = bits >> 16U;
  if (dtype == "F16" && bits << 1U != 0) narrow = (bits >> 13U) - (112U << 10U);
  if (dtype == "F16") narrow = (narrow & 0x7FFFU) | (bits >> 16U & 0x8000U);
  std::memcpy(bytes.data(), &narrow, sizeof narrow);
  return bytes.substr(0, dtype == "F32" ? 4 : 2);
}

/// A file with some of a model's tensors in a type that has them all, behind so many bytes.
std::string converted_weights(const json& header, const std::string& data, const char* dtype,
                              std::size_t before, const std::vector<std::string>& names) {
  std::string converted(before, 'x');
  json fields = {{"bytes", {{"dtype", "U8"}, {"shape", {before}}, {"data_offsets", {0, before}}}}};
  for (const std::string& name : names) {
    const json& entry = header[name];
    const std::size_t begin = converted.size();
    for (std::size_t at = entry["data_offsets"][0]; at < entry["data_offsets"][1]; at += 4) {
      std::uint32_t bits = 0;
      std::memcpy(&bits, data.data() + at, sizeof bits);
      // What every one of the types has.
      const auto number = std::bit_cast<float>(bits & 0xFFFF0000U);
      converted += bytes_of(std::abs(number) < 0x1p-14F ? 0.F : number, dtype);
    }
    fields[name] = {
        {"dtype", dtype}, {"shape", entry["shape"]}, {"data_offsets", {begin, converted.size()}}};
  }
  std::string text = fields.dump();
  text.resize((text.size() + 7) / 8 * 8, ' ');  // So that the data are aligned.
  return safetensors_file(text, converted);
}

void expect_the_same_of_every_file(const char* name) {
  Floats expected;
  // The weights lie behind one byte, so that nothing is aligned, or behind four; in one file or two.
  for (const auto& [dtype, before, files] : {std::tuple("F32", 1U, 1U),
                                             {"F32", 4U, 1U},
                                             {"F64", 1U, 1U},
                                             {"BF16", 1U, 2U},
                                             {"F16", 1U, 1U}}) {
    const ModelCopy model(name);
    const auto [header, data] = read_safetensors(model.path() / "model.safetensors");
    std::vector<std::vector<std::string>> names(files);
    json index;
    std::size_t next = 0;
    for (const auto& [tensor, entry] : header.items()) {
      if (tensor == "__metadata__") continue;
      const std::size_t file = next++ % files;
      names[file].push_back(tensor);
      index["weight_map"][tensor] = std::to_string(file) + ".safetensors";
    }
    for (std::size_t file = 0; file < files; ++file) {
      write_file(model.path() / (std::to_string(file) + ".safetensors"),
                 converted_weights(header, data, dtype, before, names[file]));
    }
    model.patch("model.safetensors", nullptr);
    model.patch("model.safetensors.index.json", index);
    for (const files::ModelDirectory& directory :
         {files::ModelDirectory(model.path()),
          files::ModelDirectory(model.path(), model.path().parent_path())}) {
      const Floats vector = encode(*load(directory), {kText});
      if (expected.empty()) expected = vector;
      EXPECT_EQ(vector, expected) << name << dtype << before << directory.is_snapshot();
    }
  }
}

TEST(VariantsTest, TheTypeOfTheWeightsAndTheWayToReadThemMakeNoDifference) {
  expect_the_same_of_every_file("tiny_mpnet_odd_dense");
  expect_the_same_of_every_file("tiny_gte_cls");  // Several matrices are one tensor.
}

TEST(VariantsTest, MembersHaveOldNames) {
  const ModelCopy model("tiny_nomic_prompts");
  const Floats expected = encode(model, {kText});
  model.patch("config.json", {{"rope_parameters", nullptr}, {"rope_theta", 500}});
  const Floats other = encode(model, {kText});
  EXPECT_NE(other, expected);
  model.patch("config.json", {{"rope_theta", nullptr}, {"rotary_emb_base", 500}});
  EXPECT_EQ(encode(model, {kText}), other);
  model.patch("config.json",
              {{"rope_scaling", {{"type", "linear"}, {"factor", 2}, {"rope_theta", 500}}}});
  EXPECT_NE(encode(model, {kText}), other);
  model.patch("config.json", {{"rope_scaling", nullptr}, {"rotary_emb_base", nullptr}});
  std::ifstream file(model.path() / "config.json");
  const json config = json::parse(file);
  for (const auto& [now, before] : {std::pair("hidden_size", "n_embd"),
                                    {"num_hidden_layers", "n_layer"},
                                    {"num_attention_heads", "n_head"},
                                    {"intermediate_size", "n_inner"},
                                    {"layer_norm_eps", "layer_norm_epsilon"}}) {
    model.patch("config.json", {{now, nullptr}, {before, config[now]}});
  }
  EXPECT_EQ(encode(model, {kText}), expected);
}

TEST(VariantsTest, OfTwoNamesTheOneThatTheModelsOwnLibrarySetsLastCounts) {
  for (const auto& [name, first, last] :
       {std::tuple("tiny_distilbert_mean", R"({"n_heads": 4})",
                   R"({"n_heads": 5, "num_attention_heads": 4})"),
        {"tiny_distilbert_mean", "{}",
         R"({"dim": null, "hidden_size": 40, "n_layers": null, "num_hidden_layers": 3})"},
        {"tiny_modernbert_cls", R"({"local_attention": 4})", R"({"sliding_window": 2})"}}) {
    const ModelCopy model(name);
    model.patch("config.json", json::parse(first));
    const Floats expected = encode(model, {kText});
    const ModelCopy other(name);
    other.patch("config.json", json::parse(last));
    EXPECT_EQ(encode(other, {kText}), expected) << last;
  }
}

/// The native runtime, and something else that happens while it loads.
class WhileLoading final : public Runtime {
 public:
  explicit WhileLoading(std::function<void()> event) : _event(std::move(event)) {}

  std::string_view name() const noexcept override { return "native, interrupted"; }
  std::size_t get_num_threads() const override { return 1; }
  void set_num_threads(std::size_t) const override {}
  std::unique_ptr<const Encoder> load_encoder(const Checkpoint& checkpoint,
                                              const TransformerConfig& config,
                                              NumberFormat format) const override {
    _event();
    return _native.load_encoder(checkpoint, config, format);
  }
  const Kernels& kernels() const noexcept override { return _native.kernels(); }

 private:
  const NativeRuntime _native{best_kernels()};
  std::function<void()> _event;
};

TEST(VariantsTest, WithoutKernelsForItThereIsNoBfloat16) {
  EXPECT_FALSE(NativeRuntime(best_kernels()).supports(NumberFormat::bfloat16));
}

TEST(VariantsTest, AFileThatChangesWhileItIsReadIsNoModel) {
  const ModelCopy model;
  const WhileLoading runtime(
      [&] { std::filesystem::last_write_time(model.path() / "model.safetensors", {}); });
  EXPECT_THAT(
      failure_of([&] { SentenceTransformer::load(files::ModelDirectory(model.path()), runtime); }),
      testing::HasSubstr("model.safetensors: changed while it was read"));
}

TEST(VariantsTest, TextsBeyondARoundOfBatchesKeepTheirOrder) {
  constexpr std::size_t kWidth = 32;
  std::vector<std::string_view> texts(33'000);
  texts[0] = texts.back() = "parse";
  std::vector<std::uint32_t> counts(texts.size());
  const Floats rows = encode(ModelCopy(), texts, {.token_counts = counts});
  const auto row = [&rows](std::size_t text) {
    return std::span(rows).subspan(text * kWidth, kWidth);
  };
  EXPECT_FALSE(std::ranges::equal(row(0), row(1)));
  for (std::size_t i = 2; i < texts.size(); ++i) {
    ASSERT_TRUE(std::ranges::equal(row(i), row(texts[i].empty() ? 1 : 0))) << i;
    ASSERT_EQ(counts[i], texts[i].empty() ? 2U : 3U) << i;
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
