#include "tovana/engines/embedding/engine/status.h"

#include <limits>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tovana::embedding {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
using ::testing::VariantWith;

TEST(StatusTest, DescribesItselfInASentence) {
  const struct {
    EmbeddingStatus status;
    const char* sentence;
  } cases[] = {
      {{.state = "ready", .backend = "tfidf", .detail = "why"}, "is ready (tfidf)"},
      {{.state = "loading", .loading_s = 12.4}, "is still loading (12 s so far)"},
      {{.state = "loading", .loading_s = 12.5}, "is still loading (12 s so far)"},
      {{.state = "loading", .loading_s = 13.5}, "is still loading (14 s so far)"},
      {{.state = "loading"}, "is still loading (0 s so far)"},
      {{.state = "loading", .loading_s = 1e20},
       "is still loading (100000000000000000000 s so far)"},
      {{.state = "unavailable", .detail = "RuntimeError: no disk", .retry_in_s = 29.6},
       "could not be loaded (RuntimeError: no disk); the next attempt is in 30 s"},
      {{.state = "unavailable", .detail = "D"},
       "could not be loaded (D); the next attempt is in 0 s"},
      {{.state = "closed", .detail = "D", .loading_s = 3}, "was shut down before it was loaded"},
      {{.state = "idle"}, "has not started loading"},
      {{.state = "Loading"}, "has not started loading"},
  };
  for (const auto& [status, sentence] : cases) EXPECT_EQ(status.describe(), sentence);
}

TEST(StatusTest, MapHoldsTheFieldsThatHaveAValue) {
  EXPECT_THAT((EmbeddingStatus{.state = "ready", .backend = "tfidf"}.to_dict()),
              ElementsAre(Pair("backend", VariantWith<std::string>("tfidf")),
                          Pair("state", VariantWith<std::string>("ready"))));
  EXPECT_THAT(
      (EmbeddingStatus{.state = "", .detail = "", .loading_s = 0.0, .retry_in_s = 0.5}.to_dict()),
      ElementsAre(Pair("detail", VariantWith<std::string>("")),
                  Pair("loading_s", VariantWith<double>(0.0)),
                  Pair("retry_in_s", VariantWith<double>(0.5)),
                  Pair("state", VariantWith<std::string>(""))));
}

TEST(StatusTest, ErrorCarriesTheStatusPastItsCopies) {
  const EmbeddingStatus status = {.state = "closed", .detail = "D"};
  std::exception_ptr thrown;
  try {
    throw EmbeddingNotReadyError(status);
  } catch (const TryAgainLaterError& error) {
    thrown = std::make_exception_ptr(dynamic_cast<const EmbeddingNotReadyError&>(error));
  }
  try {
    std::rethrow_exception(thrown);
  } catch (const EmbeddingNotReadyError& error) {
    EXPECT_STREQ(error.what(), "The embedding model was shut down before it was loaded");
    EXPECT_EQ(error.status(), status);
    EXPECT_EQ(error_kind(error), "EmbeddingNotReadyError");
  }
}

TEST(StatusTest, DelayDoublesUpToTenMinutes) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  const std::pair<std::int64_t, double> cases[] = {{-kMost, 30}, {0, 30},     {1, 30},  {2, 60},
                                                   {3, 120},     {4, 240},    {5, 480}, {6, 600},
                                                   {7, 600},     {kMost, 600}};
  for (const auto& [failures, delay] : cases) EXPECT_EQ(retry_delay(failures), delay) << failures;
}

}  // namespace
}  // namespace tovana::embedding
