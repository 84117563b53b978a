// The vectors of Python's library, for small models of every kind and for a real one.

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <numeric>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <ATen/Parallel.h>
#include <gtest/gtest.h>

#include "sentence_transformers/model/sentence_transformer.h"
#include "tests/sentence_transformers/model/model_files.h"

namespace tovana::sentence_transformers {
namespace {

struct ReferenceCase {
  const char* name;
  std::filesystem::path model;
  std::filesystem::path reference;
  const char* key;  ///< Of the vectors in the reference.
  bool normalize;
  /// Of a float. The small models' vectors are not of unit length, and their weights are large.
  double tolerance;
  const Kernels* kernels;  ///< Null: libtorch's own operators.

  /// libtorch's products, which a Dense module is, depend on how many rows there are.
  bool is_exact() const { return kernels != nullptr && !std::string_view(name).ends_with("dense"); }
};

/// Every set of kernels that this processor runs, and none.
std::vector<const Kernels*> all_kernels() {
  std::vector<const Kernels*> all(supported_kernels().begin(), supported_kernels().end());
  all.push_back(nullptr);
  return all;
}

std::vector<ReferenceCase> reference_cases() {
  std::vector<ReferenceCase> cases;
  const auto tiny = [&cases](const char* name, const char* key, bool normalize) {
    for (const Kernels* kernels : all_kernels()) {
      cases.push_back({name, tiny_model(name), tiny_model(name) / "reference.jsonl", key, normalize,
                       1e-5, kernels});
    }
  };
  tiny("tiny_bert_cls", "embedding", false);
  tiny("tiny_bert_cls", "embedding_normalized", true);
  tiny("tiny_bert_max_dense", "embedding", false);
  tiny("tiny_bert_f16", "embedding_float32_upcast", false);
  tiny("tiny_mpnet_mean", "embedding", false);
#ifdef TOVANA_MINILM_DIR
  for (const Kernels* kernels : all_kernels()) {
    if (kernels == nullptr && best_kernels() != nullptr) continue;  // Slow.
    cases.push_back({"all_MiniLM_L6_v2", TOVANA_MINILM_DIR,
                     std::filesystem::path(TOVANA_TEST_DATA) / "minilm_reference.jsonl",
                     "embedding", true, 2e-6, kernels});
  }
#endif
  return cases;
}

using Rows = std::vector<std::vector<float>>;

double distance(const std::vector<float>& row, const auto& other) {
  double largest = 0;
  for (std::size_t i = 0; i < row.size(); ++i) {
    const double difference = std::abs(static_cast<double>(row[i]) - static_cast<double>(other[i]));
    if (!(difference <= largest)) largest = difference;  // NaN included.
  }
  return largest;
}

/// Without it GoogleTest prints the bytes of a case, addresses included, beside the test's name.
void PrintTo(const ReferenceCase& given, std::ostream* stream) { *stream << given.name; }

class ReferenceTest : public testing::TestWithParam<ReferenceCase> {
 protected:
  const ReferenceCase& given() const { return GetParam(); }

  Rows encode(const std::vector<std::string>& texts) const {
    const std::vector<std::string_view> views(texts.begin(), texts.end());
    const auto width = static_cast<std::size_t>(_model->dimension());
    std::vector<float> vectors(texts.size() * width);
    _model->encode(views, given().normalize, vectors.data());
    Rows rows;
    for (auto row = vectors.begin(); row != vectors.end();
         row += static_cast<std::ptrdiff_t>(width)) {
      rows.emplace_back(row, row + static_cast<std::ptrdiff_t>(width));
    }
    return rows;
  }

  void expect_reference(const Rows& rows, const char* how) const {
    ASSERT_EQ(rows.size(), _reference.vectors.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
      ASSERT_EQ(rows[i].size(), _reference.vectors[i].size());
      EXPECT_LE(distance(rows[i], _reference.vectors[i]), given().tolerance)
          << how << ": " << _reference.texts[i];
    }
  }

  Reference _reference = Reference::read(given().reference, given().key);
  std::unique_ptr<const SentenceTransformer> _model =
      SentenceTransformer::load(ModelDirectory(given().model), given().kernels);
};

TEST_P(ReferenceTest, GivesTheSameVectors) {
  const int threads = at::get_num_threads();
  const std::vector<std::string>& texts = _reference.texts;
  std::vector<std::size_t> order(texts.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::mt19937 random(7);
  Rows first;
  for (const int count : {1, 2}) {
    at::set_num_threads(count);
    Rows alone;
    for (const std::string& text : texts) alone.push_back(encode({text}).front());
    expect_reference(alone, "alone");

    // Every text among others than before, in batches that are cut elsewhere.
    std::ranges::shuffle(order, random);
    std::vector<std::string> shuffled;
    for (const std::size_t text : order) shuffled.push_back(texts[text]);
    const Rows together = encode(shuffled);
    Rows batch(texts.size());
    for (std::size_t i = 0; i < order.size(); ++i) batch[order[i]] = together[i];
    expect_reference(batch, "in a batch");
    if (!given().is_exact()) continue;
    if (first.empty()) first = alone;
    EXPECT_TRUE(alone == first && batch == first) << "not the same to the bit";
  }
  at::set_num_threads(threads);
}

TEST_P(ReferenceTest, ServesSeveralThreadsAtOnce) {
  const std::vector<std::string> texts(_reference.texts.begin(), _reference.texts.begin() + 24);
  _reference.vectors.resize(texts.size());
  std::vector<Rows> results(3);
  {
    std::vector<std::jthread> threads;
    for (Rows& result : results) {
      threads.emplace_back([this, &texts, &result] { result = encode(texts); });
    }
  }
  _reference.texts = texts;
  for (const Rows& result : results) expect_reference(result, "beside other threads");
}

INSTANTIATE_TEST_SUITE_P(Models, ReferenceTest, testing::ValuesIn(reference_cases()),
                         [](const auto& given) {
                           const Kernels* const kernels = given.param.kernels;
                           return std::string(given.param.name) + "_" + given.param.key + "_" +
                                  (kernels == nullptr ? "plain" : kernels->name);
                         });

}  // namespace
}  // namespace tovana::sentence_transformers
