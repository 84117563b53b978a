#include "tests/sentence_transformers/tokenizer/reference.h"

#include <algorithm>
#include <filesystem>

#include <gtest/gtest.h>

#include "sentence_transformers/files/model_directory.h"
#include "sentence_transformers/tokenizer/tokenizer.h"

namespace tovana::sentence_transformers::test {
namespace {

struct TinyModel {
  const char* name;
  std::size_t max_length;
  std::int32_t pad_id;
};

TEST(TinyModels, EveryReferenceTextHasItsIdsAtEveryLength) {
  for (const TinyModel& model : {TinyModel{"tiny_bert_cls", 128, 0},
                                 {"tiny_bert_f16", 128, 0},
                                 {"tiny_bert_max_dense", 48, 0},
                                 {"tiny_mpnet_mean", 64, 1}}) {
    SCOPED_TRACE(model.name);
    const std::filesystem::path directory =
        std::filesystem::path(from_environment("TOVANA_TEST_DATA")) / "tiny_models" / model.name;
    const Tokenizer tokenizer = Tokenizer::load(ModelDirectory(directory));
    EXPECT_EQ(tokenizer.pad_id(), model.pad_id);
    EXPECT_TRUE(tokenizer.is_special_id(model.pad_id));
    EXPECT_FALSE(tokenizer.is_special_id(5));
    for (const Reference& reference : read_references(directory / "reference.jsonl")) {
      const auto ids = tokenizer.encode(reference.text, model.max_length);
      ASSERT_EQ(ids, reference.ids) << reference.text;
      // A shorter limit keeps the beginning and the last token, also amid the pieces of a word.
      for (std::size_t length = 2; length < ids.size(); ++length) {
        auto cut = ids;
        cut.erase(cut.begin() + static_cast<std::ptrdiff_t>(length) - 1, cut.end() - 1);
        ASSERT_EQ(tokenizer.encode(reference.text, length), cut) << reference.text;
      }
    }
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers::test
