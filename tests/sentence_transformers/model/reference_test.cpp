// The vectors of Python's library, for small models of every kind and for a real one.

#include <cmath>
#include <filesystem>
#include <memory>
#include <numeric>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "sentence_transformers/compute/thread_count.h"
#include "sentence_transformers/model/native_runtime.h"
#include "sentence_transformers/model/sentence_transformer.h"
#include "tests/sentence_transformers/all_kernels.h"
#include "tests/sentence_transformers/model_files.h"

namespace tovana::sentence_transformers {
namespace {

namespace fs = std::filesystem;
using Rows = std::vector<std::vector<float>>;

struct ReferenceCase {
  std::string name;
  fs::path model;
  fs::path reference;
  const char* key;  ///< Of the vectors in the reference.
  bool normalize;
  /// Of a float. The small models' vectors are not of unit length, and their weights are large.
  double tolerance;
  double least_cosine;  ///< In bfloat16 it is this that counts.
  const Kernels* kernels;
};

/// For every set of kernels that can be run here. What some of the models are made for is
/// told by peers/models/make_tiny_models.py.
std::vector<ReferenceCase> reference_cases() {
  std::vector<ReferenceCase> cases;
  for (const Kernels* kernels : all_kernels()) {
    for (const auto& [name, key] : {std::pair("tiny_bert_cls", "embedding"),
                                    {"tiny_bert_max_dense", "embedding"},
                                    {"tiny_bert_f16", "embedding_float32_upcast"},
                                    {"tiny_mpnet_mean", "embedding"},
                                    {"tiny_mpnet_odd_dense", "embedding"},
                                    {"tiny_bert_old_modules", "embedding"},
                                    {"tiny_bert_old_modules", "embedding_normalized"},
                                    {"tiny_distilbert_mean", "embedding_normalized"},
                                    {"tiny_electra_mean_max", "embedding_normalized"},
                                    {"tiny_nomic_prompts", "embedding_normalized"},
                                    {"tiny_nomic_newnames", "embedding_normalized"},
                                    {"tiny_gte_cls", "embedding_normalized"},
                                    {"tiny_gte_xlmr_prefixed", "embedding_normalized"},
                                    {"tiny_minilm_multilingual", "embedding_normalized"},
                                    {"tiny_modernbert_cls", "embedding_normalized"},
                                    {"tiny_modernbert_mean_old", "embedding_normalized"},
                                    {"tiny_roberta_mean", "embedding_normalized"},
                                    {"tiny_xlmr_mean", "embedding_normalized"},
                                    {"tiny_camembert_shards", "embedding_normalized"}}) {
      const fs::path model = tiny_model(name);
      const bool normalize = std::string_view(key).ends_with("normalized");
      cases.push_back({name, model, model / "reference.jsonl", key, normalize,
                       normalize ? 2e-6 : 1e-5, 0.9995, kernels});
    }
#ifdef TOVANA_MINILM_DIR
    if (kernels == &kEmulatedBf16Kernels) continue;  // It would take long.
    cases.push_back({"all_MiniLM_L6_v2", TOVANA_MINILM_DIR,
                     fs::path(TOVANA_TEST_DATA) / "minilm_reference.jsonl", "embedding", true, 2e-6,
                     0.9999, kernels});
#endif
  }
  return cases;
}

double cosine(const std::vector<float>& left, const std::vector<double>& right) {
  const auto product = [](const auto& a, const auto& b) {
    return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
  };
  return product(left, right) / std::sqrt(product(left, left) * product(right, right));
}

/// Without it GoogleTest prints the bytes of a case, addresses included, beside the test's name.
void PrintTo(const ReferenceCase& given, std::ostream* stream) { *stream << given.name; }

class ReferenceTest : public testing::TestWithParam<ReferenceCase> {
 protected:
  ReferenceTest() {
    const std::vector<nlohmann::json> references = read_references(GetParam().reference);
    // A fourth of the real model's texts, which take long, is as many as the others have.
    const std::size_t step = references.size() > 100 ? 4 : 1;
    for (std::size_t i = 0; i < references.size(); i += step) {
      _texts.push_back(references[i].at("text"));
      _expected.push_back(references[i].at(GetParam().key));
    }
  }

  static bool is_bfloat16() { return GetParam().kernels->format == NumberFormat::bfloat16; }

  static NativeRuntime runtime() {
    const Kernels* const kernels = GetParam().kernels;
    return is_bfloat16() ? NativeRuntime(best_kernels(), kernels) : NativeRuntime(*kernels);
  }

  Rows encode(const std::vector<std::string>& texts) const {
    const std::vector<std::string_view> views(texts.begin(), texts.end());
    const auto width = static_cast<std::ptrdiff_t>(_model->dimension());
    std::vector<float> vectors(texts.size() * _model->dimension());
    _model->encode(views, {.normalize = GetParam().normalize}, vectors.data());
    Rows rows;
    for (auto row = vectors.begin(); row != vectors.end(); row += width) {
      rows.emplace_back(row, row + width);
    }
    return rows;
  }

  /// Rows of the first texts.
  void expect_reference(const Rows& rows, const char* how) const {
    for (std::size_t i = 0; i < rows.size(); ++i) {
      ASSERT_EQ(rows[i].size(), _expected[i].size());
      if (is_bfloat16()) {
        ASSERT_GE(cosine(rows[i], _expected[i]), GetParam().least_cosine)
            << how << ": " << _texts[i];
        continue;
      }
      for (std::size_t k = 0; k < rows[i].size(); ++k) {
        const auto actual = static_cast<double>(rows[i][k]);
        ASSERT_NEAR(actual, _expected[i][k], GetParam().tolerance) << how << ": " << _texts[i];
      }
    }
  }

  std::vector<std::string> _texts;
  std::vector<std::vector<double>> _expected;
  std::unique_ptr<const SentenceTransformer> _model = SentenceTransformer::load(
      files::ModelDirectory(GetParam().model), runtime(), GetParam().kernels->format);
};

TEST_P(ReferenceTest, GivesTheSameVectors) {
  const std::size_t threads = get_num_threads();
  Rows first;
  for (const std::size_t count : {1U, 2U}) {
    set_num_threads(count);
    Rows alone;
    for (const std::string& text : _texts) alone.push_back(encode({text}).front());
    expect_reference(alone, "alone");
    const Rows batch = encode(_texts);
    expect_reference(batch, "in a batch");
    if (first.empty()) first = alone;
    EXPECT_TRUE(alone == first && batch == first) << "not the same to the bit";
  }
  set_num_threads(threads);
  if (is_bfloat16()) {
    EXPECT_LT(cosine(first[0], _expected[0]), 1 - 1e-8) << "it is float32 after all";
  }

  const std::vector<std::string> some(_texts.begin(), _texts.begin() + 20);
  std::vector<std::jthread> callers;
  for (int i = 0; i < 3; ++i) {
    callers.emplace_back([&] { expect_reference(encode(some), "beside other threads"); });
  }
}

INSTANTIATE_TEST_SUITE_P(Models, ReferenceTest, testing::ValuesIn(reference_cases()),
                         [](const auto& given) {
                           return given.param.name + "_" + given.param.key + "_" +
                                  given.param.kernels->name;
                         });

}  // namespace
}  // namespace tovana::sentence_transformers
