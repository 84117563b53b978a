// The boundary, linked into this program instead of opened.

#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/sentence_transformers/model_files.h"
#include "tovana/engines/embedding/backends/local/model_library_abi.h"

extern "C" const tovana::model_library_abi::Table* tovana_model_library();

namespace tovana::sentence_transformers {
namespace {

namespace abi = model_library_abi;
using abi::text_of;

const abi::Table& table() { return *tovana_model_library(); }

/// "kind: message" of a failure, which is freed; "" without one.
std::string described(abi::Error* error) {
  if (error == nullptr) return "";
  std::string result(view_of(error->kind));
  result.append(": ").append(view_of(error->message));
  table().free_error(error);
  return result;
}

constexpr abi::LoadOptions kFloat32 = {.number_format = abi::NumberFormat::float32};

TEST(Plugin, EncodesThroughTheTable) {
  ASSERT_EQ(described(table().open()), "");
  const std::string path = tiny_model("tiny_bert_max_dense").string();
  ASSERT_EQ(described(table().check_model(text_of(path), text_of(path))), "");
  abi::Model* model = nullptr;
  ASSERT_EQ(described(table().load_model(text_of(path), text_of(path), &kFloat32, &model)), "");
  ASSERT_EQ(table().dimension(model), 24U);

  const std::vector<nlohmann::json> references = read_references(path + "/reference.jsonl");
  const std::string sentence = references[3].at("text");
  const std::vector<abi::Text> texts = {text_of(sentence), {.data = nullptr, .size = 0}};
  std::vector<float> vectors(std::size_t{2} * 24);
  std::vector<std::uint32_t> counts(2);
  abi::EncodeCall call = {.texts = texts.data(),
                          .count = 2,
                          .normalize = 1,
                          .prompt_name = nullptr,
                          .prompt = nullptr,
                          .vectors = vectors.data(),
                          .token_counts = counts.data()};
  ASSERT_EQ(described(table().encode(model, &call)), "");
  EXPECT_EQ(counts, (std::vector<std::uint32_t>{
                        static_cast<std::uint32_t>(references[3].at("ids").size()), 2}));
  ASSERT_EQ(references[0].at("text"), "");
  std::vector<float> expected = references[3].at("embedding_normalized");
  for (const float number : references[0].at("embedding_normalized")) expected.push_back(number);
  EXPECT_THAT(vectors, testing::Pointwise(testing::FloatNear(2e-6F), expected));
  call = {};
  EXPECT_EQ(described(table().encode(model, &call)), "");
  const std::string unknown = "x\ny";
  const abi::Text prompt = text_of(unknown);
  call.prompt_name = &prompt;
  EXPECT_EQ(described(table().encode(model, &call)),
            R"(ValueError: the model has no prompt "x\ny"; it has "document", "query")");
  table().free_model(model);
}

TEST(Plugin, LetsFailuresThroughAsKindAndOneLine) {
  const ModelCopy copy;
  copy.patch("config.json", {{"model_type", "a\nb\x1b[2J"}});
  const std::string path = copy.path().string();
  abi::Model* model = nullptr;
  for (const auto& [folder, fault] : {std::pair(path, "/config.json: \"model_type\" is \"a"),
                                      {path + "\nabsent", "\\nabsent: "}}) {
    const std::string message =
        described(table().load_model(text_of(folder), text_of(folder), &kFloat32, &model));
    EXPECT_THAT(message, testing::StartsWith("ModelFilesError: " + path + fault));
    EXPECT_EQ(message.find_first_of("\n\x1b"), std::string::npos);
  }
  const abi::LoadOptions unknown = {.number_format = abi::NumberFormat{99}};
  const std::string sound = tiny_model("tiny_bert_cls").string();
  EXPECT_EQ(described(table().load_model(text_of(sound), text_of(sound), &unknown, &model)),
            "RuntimeError: the model library does not support the number format 99");
  EXPECT_EQ(model, nullptr);
  EXPECT_EQ(table().supports(unknown.number_format), 0);
  EXPECT_EQ(table().supports(abi::NumberFormat::float32), 1);
  table().free_error(nullptr);
  table().free_model(nullptr);
}

TEST(Plugin, ANumberOfThreadsIsAtLeastOne) {
  std::int32_t before = 0;
  ASSERT_EQ(described(table().get_num_threads(&before)), "");
  EXPECT_THAT(described(table().set_num_threads(-1)), testing::StartsWith("RuntimeError: "));
  std::int32_t after = 0;
  ASSERT_EQ(described(table().get_num_threads(&after)), "");
  EXPECT_EQ(after, before);
}

}  // namespace
}  // namespace tovana::sentence_transformers
