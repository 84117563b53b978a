// The boundary, linked into this program instead of opened.

#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/sentence_transformers/model_files.h"
#include "tovana/engines/embedding/backends/local/model_library_abi.h"

extern "C" const tovana::model_library_abi::Table* tovana_model_library();

namespace tovana::sentence_transformers {
namespace {

namespace abi = model_library_abi;

const abi::Table& table() { return *tovana_model_library(); }

abi::Text text(const std::string& value) { return {.data = value.data(), .size = value.size()}; }

/// "kind: message" of a failure, which is freed; "" without one.
std::string described(abi::Error* error) {
  if (error == nullptr) return "";
  const std::string result = std::string(error->kind.data, error->kind.size) + ": " +
                             std::string(error->message.data, error->message.size);
  table().free_error(error);
  return result;
}

TEST(Plugin, EncodesThroughTheTable) {
  const std::string path = tiny_model("tiny_bert_max_dense").string();
  abi::Model* model = nullptr;
  ASSERT_EQ(described(table().load_model(text(path), text(path), &model)), "");
  ASSERT_EQ(table().dimension(model), 24U);

  const std::vector<nlohmann::json> references = read_references(path + "/reference.jsonl");
  const std::string sentence = references[3].at("text");
  const std::vector<abi::Text> texts = {text(sentence), {.data = nullptr, .size = 0}};
  std::vector<float> vectors(2 * 24);
  ASSERT_EQ(described(table().encode(model, texts.data(), 2, 1, vectors.data())), "");
  ASSERT_EQ(references[0].at("text"), "");
  std::vector<float> expected = references[3].at("embedding_normalized");
  for (const float number : references[0].at("embedding_normalized")) expected.push_back(number);
  EXPECT_THAT(vectors, testing::Pointwise(testing::FloatNear(2e-6F), expected));
  EXPECT_EQ(described(table().encode(model, nullptr, 0, 1, nullptr)), "");
  table().free_model(model);
}

TEST(Plugin, LetsFailuresThroughAsKindAndOneLine) {
  const ModelCopy copy;
  copy.patch("config.json", {{"model_type", "a\nb\x1b[2J"}});
  const std::string path = copy.path().string();
  abi::Model* model = nullptr;
  for (const auto& [folder, fault] : {std::pair(path, "/config.json: \"model_type\" is \"a"),
                                      {path + "\nabsent", "\\nabsent: "}}) {
    const std::string message = described(table().load_model(text(folder), text(folder), &model));
    EXPECT_THAT(message, testing::StartsWith("ValueError: " + path + fault));
    EXPECT_EQ(message.find_first_of("\n\x1b"), std::string::npos);
  }
  EXPECT_EQ(model, nullptr);
  table().free_error(nullptr);
  table().free_model(nullptr);
}

TEST(Plugin, CountsThreadsAsTorchDoes) {
  std::int32_t before = 0;
  ASSERT_EQ(described(table().get_num_threads(&before)), "");
  ASSERT_EQ(described(table().set_num_threads(3)), "");
  // The setting is this thread's, and what a thread copies that has not computed yet.
  std::int32_t copied = 0;
  std::jthread([&] { EXPECT_EQ(described(table().get_num_threads(&copied)), ""); }).join();
  EXPECT_EQ(copied, 3);
  EXPECT_EQ(described(table().set_num_threads(before)), "");
  // A count that libtorch refuses, with a message of its own kind.
  EXPECT_THAT(described(table().set_num_threads(-1)), testing::StartsWith("RuntimeError: "));
}

}  // namespace
}  // namespace tovana::sentence_transformers
