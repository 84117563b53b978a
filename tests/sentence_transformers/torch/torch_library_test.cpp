// The model library on libtorch, as the component opens it, against the vectors of Python's
// library for every small model and for a real one.

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <unistd.h>

#include "tests/sentence_transformers/model_files.h"
#include "tests/support/failure_text.h"
#include "tests/support/temp_folder.h"
#include "tovana/engines/embedding/backends/local/model_library.h"

namespace tovana::embedding {
namespace {

namespace fs = std::filesystem;
using sentence_transformers::read_references;
using sentence_transformers::tiny_model;
using testing::HasSubstr;

ModelLibrary& library() {
  static ModelLibrary& opened = *ModelLibrary::open(TOVANA_TORCH_LIBRARY).release();
  return opened;
}

/// All texts together on two threads, or each alone on one.
void expect_references(const fs::path& folder, const fs::path& file, const EncodeOptions& options,
                       bool together) {
  const std::vector<nlohmann::json> references = read_references(file);
  const auto model = library().load_model(folder, folder);
  std::vector<std::string_view> texts;
  for (const nlohmann::json& each : references) {
    texts.push_back(each.at("text").get_ref<const std::string&>());
  }
  library().set_num_threads(together ? 2 : 1);
  EXPECT_EQ(library().get_num_threads(), together ? 2 : 1);
  const std::size_t batch = together ? texts.size() : 1;
  std::vector<float> actual;
  for (std::size_t first = 0; first < texts.size(); first += batch) {
    std::ranges::copy(model->encode(std::span(texts).subspan(first, batch), options).vectors.values,
                      std::back_inserter(actual));
  }
  auto number = actual.begin();
  for (const nlohmann::json& each : references) {
    const auto upcast = each.find("embedding_float32_upcast");
    const std::vector<double> expected = upcast == each.end() ? each.at("embedding") : *upcast;
    const auto [least, most] = std::ranges::minmax(expected);
    for (const double wanted : expected) {
      ASSERT_NEAR(static_cast<double>(*number++), wanted, 2e-6 * std::max({-least, most, 1.0}))
          << folder << ": " << each.at("text");
    }
  }
}

TEST(TorchLibraryTest, GivesPythonsVectorsForEverySmallModelOfItsFamilies) {
  for (const fs::directory_entry& model : fs::directory_iterator(tiny_model(""))) {
    const std::string name = model.path().filename();
    if (std::ranges::none_of(std::array{"tiny_bert_", "tiny_minilm_", "tiny_mpnet_"},
                             [&](const char* family) { return name.starts_with(family); })) {
      EXPECT_THAT(failure_of([&] { library().check_model(model, model); }),
                  testing::ContainsRegex("decoder|on libtorch, does not run"));
      continue;
    }
    for (const bool together : {true, false}) {
      expect_references(model, model.path() / "reference.jsonl", {}, together);
    }
  }
}

#ifdef TOVANA_MINILM_DIR
TEST(TorchLibraryTest, GivesPythonsVectorsForARealModel) {
  expect_references(TOVANA_MINILM_DIR, fs::path(TOVANA_TEST_DATA) / "minilm_reference.jsonl",
                    {.normalize_embeddings = true}, true);
}
#endif

TEST(TorchLibraryTest, SaysWhatItIsAndWhyAModelDoesNotLoad) {
  EXPECT_THAT(std::string(library().describe().runtime), testing::StartsWith("libtorch 2."));
  EXPECT_THAT(std::string(library().describe().kernels),
              testing::AnyOf("avx512", "avx2", "default"));
  const fs::path none = "/nowhere";
  EXPECT_THAT(failure_of([&] { library().check_model(none, none); }), HasSubstr("/nowhere"));
}

TEST(TorchLibraryTest, SaysWhichOfItsFilesIsMissing) {
  const TempFolder folder;
  const fs::path alone = folder.path() / "library.so";
  fs::copy_file(TOVANA_TORCH_LIBRARY, alone);
  const std::string failure = failure_of([&] { ModelLibrary::open(alone); });
  EXPECT_THAT(failure, HasSubstr("cannot use the model library " + alone.string()));
  EXPECT_THAT(failure, HasSubstr("cannot load " + folder.path().string() +
                                 "/libtovana_sentence_transformers_torch_runtime.so: "));
}

const LocalModel* model_at_exit = nullptr;

std::vector<float> encode_some() {
  const std::vector<std::string_view> texts(40, "some text that is not short");
  return model_at_exit->encode(texts, {}).vectors.values;
}

TEST(TorchLibraryTest, ComputesWhenTheHandlersThatLibtorchWouldRegisterHaveRun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process that has not opened libtorch yet
  EXPECT_EXIT(
      {
        static std::vector<float> before;
        static_cast<void>(std::atexit([] { _exit(encode_some() == before ? 7 : 1); }));
        const fs::path folder = tiny_model("tiny_bert_max_dense");
        model_at_exit = library().load_model(folder, folder).release();
        before = encode_some();
        std::exit(2);
      },
      testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace tovana::embedding
