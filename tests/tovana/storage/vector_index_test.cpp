#include "tovana/storage/vector_index.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
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
  double product = 0, squares_a = 0, squares_b = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    product += a[i] * b[i];
    squares_a += a[i] * a[i];
    squares_b += b[i] * b[i];
  }
  const double norms = std::sqrt(squares_a) * std::sqrt(squares_b);
  return norms > 0 ? product / norms : 0;
}

// Rows move when others are removed: a wrong row shows as a wrong neighbour after enough of them.
TEST(EmbeddingIndex, AgreesWithAPlainSearchThroughAnyAddsAndRemoves) {
  constexpr std::size_t kDimension = 11;  // no multiple of the lanes of the dot product
  std::mt19937 random(7);
  std::uniform_real_distribution<double> element(-1, 1);
  std::uniform_int_distribution<std::int64_t> id(-20, 20);
  const auto draw = [&] {
    Vector vector(kDimension);
    for (double& x : vector) x = element(random);
    if (random() % 8 == 0) std::ranges::fill(vector, 0.0);
    return vector;
  };
  EmbeddingIndex index(kDimension);
  std::map<std::int64_t, Vector> plain;
  for (int step = 0; step < 500; ++step) {
    const std::int64_t key = id(random);
    if (random() % 3 == 0) {
      EXPECT_EQ(index.remove(key), plain.erase(key) == 1);
    } else {
      plain[key] = draw();
      index.add(key, plain[key]);
    }
    ASSERT_EQ(index.size(), plain.size());
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
