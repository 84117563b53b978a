#include "sentence_transformers/weights/weights.h"

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

namespace fs = std::filesystem;

/// A file with one tensor of four bytes.
std::string file_with(const std::string& name, const std::string& content) {
  const std::string header = "{\"" + name + R"(":{"dtype":"U8","shape":[4],"data_offsets":[0,4]}})";
  const std::uint64_t size = header.size();
  std::string file(8, '\0');
  std::memcpy(file.data(), &size, 8);
  return file + header + content;
}

/// A model folder that is a snapshot of a cache, whose weights are mapped, or one of somebody's
/// own.
class WeightsTest : public testing::TestWithParam<bool> {
 protected:
  void write(const std::string& name, std::string_view content) {
    write_file(_model / name, content);
  }

  Weights load() const {
    return Weights::load(GetParam() ? ModelDirectory(_model, _folder.path())
                                    : ModelDirectory(_model));
  }

  std::string failure() const {
    try {
      load();
    } catch (const std::exception& error) {
      return failure_text(error);
    }
    return "no failure";
  }

  static std::string content(const Weights& weights, std::string_view name) {
    const TensorView* const tensor = weights.find(name);
    if (tensor == nullptr) return "no tensor";
    return {reinterpret_cast<const char*>(tensor->data.data()), tensor->data.size()};
  }

  TempFolder _folder;
  fs::path _model = _folder.path() / "model";
};

TEST_P(WeightsTest, ComeFromOneFileElseFromTheIndex) {
  write("a.safetensors", file_with("a", "AAAA"));
  write("b.safetensors", file_with("b", "BBBB"));
  write("model.safetensors.index.json",
        R"({"weight_map":{"a":"a.safetensors","b":"b.safetensors"}})");
  write("pytorch_model.bin", "x");
  {
    const Weights weights = load();
    EXPECT_EQ(content(weights, "a"), "AAAA");
    EXPECT_EQ(content(weights, "b"), "BBBB");
  }
  write("model.safetensors", file_with("whole", "WWWW"));
  // Views outlive the move of what they came from, and the file's name.
  Weights first = load();
  const Weights weights = std::move(first);
  fs::remove(_model / "model.safetensors");
  EXPECT_EQ(content(weights, "whole"), "WWWW");
  EXPECT_EQ(content(weights, "a"), "no tensor");
}

TEST_P(WeightsTest, FailuresNameFileAndFault) {
  fs::create_directories(_model);
  const std::string in_model = "ValueError: " + _model.string() + "/";
  EXPECT_EQ(failure(), in_model + "model.safetensors: the model has no weights");
  write("pytorch_model.bin", "x");
  EXPECT_THAT(failure(), testing::StartsWith(in_model + "pytorch_model.bin: weights in pickle"));

  const auto with_index = [this](const std::string& json) {
    write("model.safetensors.index.json", json);
    return failure();
  };
  const std::string index = in_model + "model.safetensors.index.json: ";
  EXPECT_THAT(with_index("{"), testing::StartsWith(index + "no valid JSON"));
  EXPECT_EQ(with_index("[]"), index + "has no object \"weight_map\"");
  EXPECT_EQ(with_index(R"({"weight_map":{"a":1}})"), index + "the file of tensor \"a\" is no text");
  EXPECT_EQ(with_index(R"({"weight_map":{"a":"a.safetensors"}})"),
            in_model + "a.safetensors: not there, though model.safetensors.index.json names it");
  EXPECT_THAT(with_index(R"({"weight_map":{"a":"../a.safetensors"}})"),
              testing::HasSubstr("\"../a.safetensors\" is no file inside the model"));
  write("a.safetensors", file_with("b", "BBBB"));
  EXPECT_THAT(with_index(R"({"weight_map":{"a":"a.safetensors"}})"),
              testing::HasSubstr("a.safetensors: has no tensor \"a\""));
  write("a.safetensors", file_with("a", "AAA"));
  EXPECT_THAT(failure(), testing::StartsWith(in_model + "a.safetensors: no valid safetensors file: "
                                                        "the header describes 4 bytes"));
  write("model.safetensors", "");
  EXPECT_THAT(failure(), testing::HasSubstr("model.safetensors: no valid safetensors file: has 0"));
}

INSTANTIATE_TEST_SUITE_P(Folders, WeightsTest, testing::Bool(),
                         [](const auto& instance) { return instance.param ? "Mapped" : "Read"; });

}  // namespace
}  // namespace tovana::sentence_transformers
