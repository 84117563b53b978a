#include "tovana/engines/embedding/sharing/engine_config.h"

#include <gtest/gtest.h>

namespace tovana::embedding {
namespace {

TEST(EngineConfigTest, TranslatesTheSettings) {
  const Environment both = {{"BRUNE_LLM_EMBEDDING_API_KEY", " "}, {"BRUNE_LLM_API_KEY", "k2"}};
  const Environment second = {{"BRUNE_LLM_EMBEDDING_API_KEY", ""}, {"BRUNE_LLM_API_KEY", "k2"}};
  const struct {
    Config config;
    Environment environment;
    EngineConfiguration result;
  } cases[] = {
      {{.daemon = {"auto"}, .generation = {"http://x", "m"}}, both, {}},
      {{.daemon = {"Auto"}, .generation = {}}, both, {{"backend", "Auto"}}},
      {{.daemon = {"api"}, .generation = {"http://x", "m"}}, both, {{"backend", "api"}}},
      {{.daemon = {"openai"}, .generation = {"http://x", "m"}},
       both,
       {{"backend", "openai"}, {"base_url", "http://x"}, {"api_key", " "}, {"model_name", "m"}}},
      {{.daemon = {"openai"}, .generation = {"", ""}},
       second,
       {{"backend", "openai"},
        {"base_url", ""},
        {"api_key", "k2"},
        {"model_name", "text-embedding-3-small"}}},
      {{.daemon = {"openai"}, .generation = {}},
       {},
       {{"backend", "openai"},
        {"base_url", nullptr},
        {"api_key", nullptr},
        {"model_name", "text-embedding-3-small"}}},
  };
  for (const auto& [config, environment, result] : cases) {
    EXPECT_EQ(engine_config(config, &environment), result) << config.daemon.embedding_backend;
  }
}

}  // namespace
}  // namespace tovana::embedding
