#include <gtest/gtest.h>

#include "sentence_transformers/files/model_directory.h"
#include "sentence_transformers/tokenizer/tokenizer.h"
#include "tests/sentence_transformers/tokenizer/reference.h"

namespace tovana::sentence_transformers::test {
namespace {

TEST(MiniLM, EveryReferenceTextHasItsIds) {
  const Tokenizer tokenizer = Tokenizer::load(ModelDirectory(TOVANA_MINILM_DIR));
  for (const Reference& reference :
       read_references(from_environment("TOVANA_TEST_DATA") + "/minilm_reference.jsonl")) {
    EXPECT_EQ(tokenizer.encode(reference.text, 256), reference.ids) << reference.text;
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers::test
