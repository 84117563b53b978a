#include "tovana/engines/embedding/sharing/endpoint_key.h"

#include <gtest/gtest.h>

namespace tovana::embedding {
namespace {

TEST(EndpointKey, IsTheFirstThatIsSetAndNotEmpty) {
  Environment environment = {{"OTHER", "x"}};
  EXPECT_EQ(endpoint_key(&environment), std::nullopt);
  environment["BRUNE_LLM_API_KEY"] = " general ";
  EXPECT_EQ(endpoint_key(&environment), " general ");
  environment["BRUNE_LLM_EMBEDDING_API_KEY"] = "";
  EXPECT_EQ(endpoint_key(&environment), " general ");
  environment["BRUNE_LLM_EMBEDDING_API_KEY"] = " ";
  EXPECT_EQ(endpoint_key(&environment), " ");
}

}  // namespace
}  // namespace tovana::embedding
