// The model library on libtorch, as the component opens it, against the vectors of Python's
// library for every small model and for a real one.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/sentence_transformers/reference.h"
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

/// Each text alone on one thread, and all together on two.
void expect_references(const fs::path& folder, const fs::path& file, bool normalized) {
  const std::vector<nlohmann::json> references = read_references(file);
  const auto model = library().load_model(folder, folder);
  const EncodeOptions options = {.normalize_embeddings = normalized};
  std::vector<std::string_view> texts;
  std::vector<float> alone;
  library().set_num_threads(1);
  for (const nlohmann::json& each : references) {
    const std::string_view text = texts.emplace_back(each.at("text").get_ref<const std::string&>());
    std::ranges::copy(model->encode({&text, 1}, options).vectors.values, std::back_inserter(alone));
  }
  library().set_num_threads(2);
  EXPECT_EQ(library().get_num_threads(), 2);
  const std::vector<float> together = model->encode(texts, options).vectors.values;
  std::size_t place = 0;
  for (const nlohmann::json& each : references) {
    const auto upcast = each.find("embedding_float32_upcast");
    const std::vector<double> expected = upcast == each.end() ? each.at("embedding") : *upcast;
    const double size = std::abs(
        *std::ranges::max_element(expected, {}, [](double number) { return std::abs(number); }));
    for (const double number : expected) {
      for (const std::vector<float>& actual : {std::cref(alone), std::cref(together)}) {
        ASSERT_NEAR(static_cast<double>(actual.at(place)), number, 2e-6 * std::max(size, 1.0))
            << folder << ": " << each.at("text");
      }
      ++place;
    }
  }
}

TEST(TorchLibraryTest, GivesPythonsVectorsForEverySmallModel) {
  for (const fs::directory_entry& model : fs::directory_iterator(tiny_model(""))) {
    expect_references(model, model.path() / "reference.jsonl", false);
  }
}

#ifdef TOVANA_MINILM_DIR
TEST(TorchLibraryTest, GivesPythonsVectorsForARealModel) {
  expect_references(TOVANA_MINILM_DIR, fs::path(TOVANA_TEST_DATA) / "minilm_reference.jsonl", true);
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

const SentenceTransformer* model_at_exit = nullptr;

std::vector<float> encode_some() {
  const std::vector<std::string_view> texts(40, "some text that is not short");
  return model_at_exit->encode(texts, {}).vectors.values;
}

TEST(TorchLibraryTest, ComputesWhenTheHandlersThatLibtorchWouldRegisterHaveRun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process that has not opened libtorch yet
  EXPECT_EXIT(
      {
        static std::vector<float> before;
        std::atexit([] { _exit(encode_some() == before ? 7 : 1); });
        const fs::path folder = tiny_model("tiny_bert_max_dense");
        model_at_exit = library().load_model(folder, folder).release();
        before = encode_some();
        std::exit(2);
      },
      testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace tovana::embedding
