#include "tovana/storage/vector_index.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tovana/exceptions/exceptions.h"

namespace tovana::storage {
namespace {

using Vector = std::vector<double>;

double plain_cosine(const Vector& a, const Vector& b) {
  const auto dot = [](const Vector& x, const Vector& y) {
    return std::inner_product(x.begin(), x.end(), y.begin(), 0.0);
  };
  const double norms = std::sqrt(dot(a, a)) * std::sqrt(dot(b, b));
  return norms > 0 ? dot(a, b) / norms : 0;
}

// Rows move when others are removed: a wrong row shows as a wrong neighbour after enough of them.
TEST(EmbeddingIndex, AgreesWithAPlainSearchThroughAnyAddsAndRemoves) {
  constexpr std::size_t kDimension = 11;  // no multiple of the lanes of the dot product
  std::mt19937 random(7);
  const auto draw = [&] {
    Vector vector(kDimension);
    const double scale = random() % 8 == 0 ? 0 : 1;
    for (double& x : vector) x = scale * std::uniform_real_distribution<double>(-1, 1)(random);
    return vector;
  };
  EmbeddingIndex index(kDimension);
  std::map<std::int64_t, Vector> plain;
  for (int step = 0; step < 500; ++step) {
    const std::int64_t key = std::uniform_int_distribution(-20, 20)(random);
    if (random() % 3 == 0) {
      EXPECT_EQ(index.remove(key), plain.erase(key) == 1);
    } else {
      plain[key] = draw();
      index.add(key, plain[key]);
    }
    const Vector query = draw();
    const auto found = index.nearest(query, 5);
    ASSERT_EQ(found.size(), std::min<std::size_t>(5, plain.size()));
    std::multiset<double, std::greater<>> expected;
    for (const auto& [other, vector] : plain) expected.insert(plain_cosine(query, vector));
    auto best = expected.begin();
    for (const auto& [other, similarity] : found) {
      EXPECT_NEAR(similarity, *best++, 1e-14);
      EXPECT_NEAR(similarity, plain_cosine(query, plain.at(other)), 1e-14);
    }
  }
}

TEST(EmbeddingIndex, RanksByDirectionAloneAndTiesById) {
  EmbeddingIndex index(2);
  index.add(9, Vector{1e-200, 0});
  index.add(3, Vector{1e200, 0});
  index.add(5, Vector{0, 0});
  index.add(4, Vector{-1, 0});
  index.add(6, Vector{5e-324, 5e-324});
  std::string ids;
  for (const auto& found : index.nearest(Vector{7, 0}, 99)) ids += std::to_string(found.id);
  EXPECT_EQ(ids, "39654");
  EXPECT_EQ(index.nearest(Vector{0, 0}, 2)[1].id, 4);
  EXPECT_TRUE(index.nearest(Vector{7, 0}, 0).empty());

  const double infinite = std::numeric_limits<double>::infinity();
  for (const Vector& wrong : {Vector{1}, Vector{1, 2, 3}, Vector{0, infinite}, Vector{NAN, 0}}) {
    EXPECT_THROW(index.add(3, wrong), ValueError);
    EXPECT_THROW(index.add(2, wrong), ValueError);
    EXPECT_THROW(index.nearest(wrong, 1), ValueError);
  }
  EXPECT_THROW(EmbeddingIndex(0), ValueError);
  EXPECT_EQ(index.size(), 5U);
  EXPECT_EQ(index.nearest(Vector{7, 0}, 1)[0].similarity, 1.0);

  // Summed from the first element on, each of the small squares is lost; from the last, not.
  const double small = std::ldexp(0.7, -26);
  EmbeddingIndex sums(7);
  sums.add(1, Vector{1, small, small, small, small, small, small});
  EXPECT_EQ(sums.nearest(Vector{1, 0, 0, 0, 0, 0, 0}, 1)[0].similarity, 1.0);
}

}  // namespace
}  // namespace tovana::storage
