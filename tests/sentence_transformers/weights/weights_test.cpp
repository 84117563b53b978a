#include "sentence_transformers/weights/weights.h"

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <string>
#include <vector>

#include <gmock/gmock.h>

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
  /// A file with one tensor of two numbers, four bytes.
  void write_tensor(const std::string& file, const std::string& name, const std::string& data) {
    const std::string fields = R"({"dtype":"BF16","shape":[2],"data_offsets":[0,4]})";
    write(file, safetensors_file("{\"" + name + "\":" + fields + "}", data));
  }

  Weights load() const {
    return Weights::open(GetParam() ? files::ModelDirectory(_model, _folder.path())
                                    : files::ModelDirectory(_model));
  }

  /// The numbers of a tensor, as bytes.
  static std::string content(const Weights& weights, std::string_view name) {
    const auto found = weights.tensors().find(name);
    if (found == weights.tensors().end()) return "no tensor";
    std::string bytes;
    std::vector<float> number(1);
    for (std::size_t i = 0; i < 2; ++i) {
      found->second.file->read_float32(*found->second.entry, i, number);
      bytes.append(reinterpret_cast<const char*>(number.data()) + 2, 2);
    }
    return bytes;
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
  // Tensors outlive the move of what they came from, and the file's name.
  Weights first = load();
  const Weights weights = std::move(first);
  std::filesystem::remove(_model / "model.safetensors");
  EXPECT_EQ(content(weights, "whole"), "WWWW");
  EXPECT_EQ(content(weights, "a"), "no tensor");
}

TEST_P(WeightsTest, AnyPartOfATensorIsConverted) {
  std::vector<double> numbers(50'000);
  std::iota(numbers.begin(), numbers.end(), 0);
  const std::size_t bytes = numbers.size() * sizeof(double);
  // Behind a tensor of one byte, so that nothing is aligned.
  write("model.safetensors",
        safetensors_file(R"({"a":{"dtype":"U8","shape":[1],"data_offsets":[0,1]},)"
                         R"("b":{"dtype":"F64","shape":[50000],"data_offsets":[1,400001]}})",
                         "x" + std::string(reinterpret_cast<const char*>(numbers.data()), bytes)));
  const Weights weights = load();
  const StoredTensor& tensor = weights.tensors().at("b");
  std::vector<float> part(40'000);
  tensor.file->read_float32(*tensor.entry, 1234, part);
  EXPECT_TRUE(std::equal(part.begin(), part.end(), numbers.begin() + 1234));
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
