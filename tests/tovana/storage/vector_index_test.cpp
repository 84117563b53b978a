#include "tovana/storage/vector_index.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tovana/exceptions/exceptions.h"

namespace tovana::storage {
namespace {

using Vector = std::vector<double>;

std::vector<std::int64_t> ids(const std::vector<EmbeddingIndex::Neighbour>& neighbours) {
  std::vector<std::int64_t> result;
  for (const auto& neighbour : neighbours) result.push_back(neighbour.id);
  return result;
}

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
    std::vector<double> expected;
    for (const auto& [other, vector] : plain) expected.push_back(plain_cosine(query, vector));
    std::ranges::sort(expected, std::greater());
    for (std::size_t rank = 0; rank < found.size(); ++rank) {
      EXPECT_NEAR(found[rank].similarity, expected[rank], 1e-14);
      EXPECT_NEAR(found[rank].similarity, plain_cosine(query, plain.at(found[rank].id)), 1e-14);
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
  EXPECT_EQ(ids(index.nearest(Vector{7, 0}, 99)), (std::vector<std::int64_t>{3, 9, 6, 5, 4}));
  EXPECT_EQ(index.nearest(Vector{7, 0}, 1)[0].similarity, 1.0);
  EXPECT_EQ(ids(index.nearest(Vector{0, 0}, 2)), (std::vector<std::int64_t>{3, 4}));
  EXPECT_TRUE(index.nearest(Vector{7, 0}, 0).empty());
}

TEST(EmbeddingIndex, RefusesWhatIsNoVectorOfItsAndStaysAsItWas) {
  EXPECT_THROW(EmbeddingIndex(0), ValueError);
  EmbeddingIndex index(2);
  index.add(1, Vector{0, 1});
  const double infinite = std::numeric_limits<double>::infinity();
  for (const Vector& wrong :
       {Vector{}, Vector{1}, Vector{1, 2, 3}, Vector{0, infinite}, Vector{std::nan(""), 0}}) {
    EXPECT_THROW(index.add(1, wrong), ValueError);
    EXPECT_THROW(index.add(2, wrong), ValueError);
    EXPECT_THROW(index.nearest(wrong, 1), ValueError);
  }
  EXPECT_EQ(index.size(), 1U);
  EXPECT_EQ(index.nearest(Vector{0, 1}, 1)[0].similarity, 1.0);
}

}  // namespace
}  // namespace tovana::storage
