#include "sentence_transformers/weights/weights.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/sentence_transformers/model_files.h"
#include "tests/support/failure_text.h"
#include "tests/support/temp_folder.h"

namespace tovana::sentence_transformers {
namespace {

/// A model folder that is a snapshot of a cache, whose weights are mapped, or one of somebody's
/// own.
class WeightsTest : public testing::TestWithParam<bool> {
 protected:
  WeightsTest() { std::filesystem::create_directories(_model); }

  void write(const std::string& name, std::string_view content) {
    write_file(_model / name, content);
  }
  /// A file with one tensor of four bytes.
  void write_tensor(const std::string& file, const std::string& name, const std::string& data) {
    const std::string fields = R"({"dtype":"U8","shape":[4],"data_offsets":[0,4]})";
    write(file, safetensors_file("{\"" + name + "\":" + fields + "}", data));
  }

  Weights load() const {
    return Weights::load(GetParam() ? files::ModelDirectory(_model, _folder.path())
                                    : files::ModelDirectory(_model));
  }

  static std::string content(const Weights& weights, std::string_view name) {
    const TensorView* const tensor = weights.find(name);
    if (tensor == nullptr) return "no tensor";
    return {reinterpret_cast<const char*>(tensor->data.data()), tensor->data.size()};
  }

  TempFolder _folder;
  std::filesystem::path _model = _folder.path() / "model";
};

TEST_P(WeightsTest, ComeFromOneFileElseFromTheIndex) {
  write_tensor("a.safetensors", "a", "AAAA");
  write_tensor("b.safetensors", "b", "BBBB");
  write("model.safetensors.index.json",
        R"({"weight_map":{"a":"a.safetensors","b":"b.safetensors"}})");
  write("pytorch_model.bin", "x");
  const Weights sharded = load();
  EXPECT_EQ(content(sharded, "a") + content(sharded, "b"), "AAAABBBB");

  write_tensor("model.safetensors", "whole", "WWWW");
  // Views outlive the move of what they came from, and the file's name.
  Weights first = load();
  const Weights weights = std::move(first);
  std::filesystem::remove(_model / "model.safetensors");
  EXPECT_EQ(content(weights, "whole"), "WWWW");
  EXPECT_EQ(content(weights, "a"), "no tensor");
}

TEST_P(WeightsTest, FailuresNameFileAndFault) {
  const auto expect_failure = [this](const std::string& fault) {
    EXPECT_THAT(failure_of([this] { load(); }),
                testing::StartsWith("ModelFilesError: " + _model.string() + "/" + fault));
  };
  const std::string index = "model.safetensors.index.json";
  expect_failure("model.safetensors: the model has no weights");
  write("pytorch_model.bin", "x");
  expect_failure("pytorch_model.bin: weights in pickle");
  write(index, R"({"weight_map":{"a":1}})");
  expect_failure(index + ": the file of tensor \"a\" is not a string");
  write(index, R"({"weight_map":{"a":"a.safetensors"}})");
  expect_failure("a.safetensors: not there, though " + index + " names it");
  write_tensor("a.safetensors", "b", "BBBB");
  expect_failure("a.safetensors: has no tensor \"a\"");
  write("model.safetensors", "");
  expect_failure("model.safetensors: not a valid safetensors file: has 0");
}

INSTANTIATE_TEST_SUITE_P(Folders, WeightsTest, testing::Bool(),
                         [](const auto& instance) { return instance.param ? "Mapped" : "Read"; });

}  // namespace
}  // namespace tovana::sentence_transformers
