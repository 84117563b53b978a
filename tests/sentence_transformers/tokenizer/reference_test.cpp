#include <filesystem>
#include <vector>

#include <gtest/gtest.h>

#include "sentence_transformers/tokenizer/tokenizer.h"
#include "tests/sentence_transformers/model_files.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

struct Model {
  std::filesystem::path folder;
  std::filesystem::path references;
  std::size_t max_length;
  std::int32_t pad_id = 0;
};

std::vector<Model> models() {
  std::vector<Model> models = {{tiny_model("tiny_bert_cls"), {}, 128},
                               {tiny_model("tiny_bert_f16"), {}, 128},
                               {tiny_model("tiny_bert_max_dense"), {}, 48},
                               {tiny_model("tiny_mpnet_mean"), {}, 64, 1}};
  for (Model& model : models) model.references = model.folder / "reference.jsonl";
#ifdef TOVANA_MINILM_DIR
  const std::filesystem::path data = TOVANA_TEST_DATA;
  models.push_back({TOVANA_MINILM_DIR, data / "minilm_reference.jsonl", 256});
#endif
  return models;
}

TEST(Tokenizers, EveryReferenceTextHasItsIdsAtEveryLength) {
  for (const Model& model : models()) {
    SCOPED_TRACE(model.folder);
    const Tokenizer tokenizer = Tokenizer::load(files::ModelDirectory(model.folder));
    EXPECT_EQ(tokenizer.pad_id(), model.pad_id);
    EXPECT_TRUE(tokenizer.is_special_id(model.pad_id));
    EXPECT_FALSE(tokenizer.is_special_id(30));
    for (const nlohmann::json& reference : read_references(model.references)) {
      const std::string text = reference.at("text");
      const std::vector<std::int32_t> ids = reference.at("ids");
      ASSERT_EQ(tokenizer.encode(text, model.max_length), ids) << text;
      // A shorter limit keeps the beginning and the last token, also amid the pieces of a word.
      for (std::size_t length = 2; length < ids.size(); ++length) {
        auto cut = ids;
        cut.erase(cut.begin() + static_cast<std::ptrdiff_t>(length) - 1, cut.end() - 1);
        ASSERT_EQ(tokenizer.encode(text, length), cut) << text;
      }
    }
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
