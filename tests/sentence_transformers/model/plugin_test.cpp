// The boundary, linked into this program instead of opened.

#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/sentence_transformers/model/model_files.h"
#include "tovana/engines/embedding/backends/model_library_abi.h"

extern "C" const tovana::model_library_abi::Table* tovana_model_library();

namespace tovana::sentence_transformers {
namespace {

namespace abi = model_library_abi;

abi::Text text(const std::string& value) { return {.data = value.data(), .size = value.size()}; }

/// "kind: message" of a failure, which is freed; "" without one.
std::string described(abi::Error* error) {
  if (error == nullptr) return "";
  const std::string result = std::string(error->kind.data, error->kind.size) + ": " +
                             std::string(error->message.data, error->message.size);
  tovana_model_library()->free_error(error);
  return result;
}

TEST(Plugin, EncodesThroughTheTable) {
  const abi::Table& table = *tovana_model_library();
  const std::string path = tiny_model("tiny_bert_max_dense").string();
  abi::Model* model = nullptr;
  ASSERT_EQ(described(table.load_model(text(path), text(path), &model)), "");
  ASSERT_EQ(table.dimension(model), 24U);

  const Reference reference = Reference::read(path + "/reference.jsonl", "embedding_normalized");
  const std::vector<abi::Text> texts = {text(reference.texts[3]), {.data = nullptr, .size = 0}};
  std::vector<float> vectors(2 * 24);
  ASSERT_EQ(described(table.encode(model, texts.data(), 2, 1, vectors.data())), "");
  ASSERT_EQ(reference.texts[0], "");
  for (std::size_t i = 0; i < 24; ++i) {
    EXPECT_NEAR(static_cast<double>(vectors[i]), reference.vectors[3][i], 2e-6);
    EXPECT_NEAR(static_cast<double>(vectors[24 + i]), reference.vectors[0][i], 2e-6);
  }
  EXPECT_EQ(described(table.encode(model, nullptr, 0, 1, nullptr)), "");
  table.free_model(model);
}

TEST(Plugin, LetsFailuresThroughAsKindAndOneLine) {
  const abi::Table& table = *tovana_model_library();
  const ModelCopy copy("tiny_bert_cls");
  copy.patch("config.json", {{"model_type", "a\nb\x1b[2J"}});
  const std::string path = copy.path().string();
  const std::string missing = path + "\nabsent";
  abi::Model* model = nullptr;
  const std::string refused = described(table.load_model(text(path), text(path), &model));
  EXPECT_THAT(refused, testing::StartsWith("ValueError: " + path + "/config.json: \"model_type\""));
  EXPECT_EQ(model, nullptr);
  const std::string absent = described(table.load_model(text(missing), text(missing), &model));
  EXPECT_THAT(absent, testing::StartsWith("ValueError: " + path + "\\nabsent"));
  for (const std::string& message : {refused, absent}) {
    EXPECT_THAT(message, testing::Not(testing::HasSubstr("\n")));
    EXPECT_THAT(message, testing::Not(testing::HasSubstr("\x1b")));
  }
  table.free_error(nullptr);
  table.free_model(nullptr);
}

TEST(Plugin, CountsThreadsAsTorchDoes) {
  const abi::Table& table = *tovana_model_library();
  std::int32_t before = 0;
  ASSERT_EQ(described(table.get_num_threads(&before)), "");
  ASSERT_EQ(described(table.set_num_threads(3)), "");
  // The setting is this thread's, and what a thread copies that has not computed yet.
  std::int32_t copied = 0;
  std::jthread([&] { EXPECT_EQ(described(table.get_num_threads(&copied)), ""); }).join();
  EXPECT_EQ(copied, 3);
  EXPECT_EQ(described(table.set_num_threads(before)), "");
  // A count that libtorch refuses, with a message of its own kind.
  EXPECT_THAT(described(table.set_num_threads(-1)), testing::StartsWith("RuntimeError: "));
}

}  // namespace
}  // namespace tovana::sentence_transformers
