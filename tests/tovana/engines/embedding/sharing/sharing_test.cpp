#include <cstddef>
#include <cstdlib>
#include <memory>
#include <set>

#include <gtest/gtest.h>

#include "tests/support/failure_text.h"
#include "tests/support/waiting.h"
#include "tovana/engines/embedding/sharing/engine_config.h"
#include "tovana/engines/embedding/sharing/shared_engines.h"

namespace tovana::embedding {
namespace {

TEST(EngineConfigTest, TranslatesTheSettings) {
  const auto translate = [](const Config& config, const Environment& keys) {
    return engine_config(config, &keys);
  };
  const Environment keys = {{"BRUNE_LLM_EMBEDDING_API_KEY", " "}, {"BRUNE_LLM_API_KEY", "k2"}};
  using Result = EngineConfiguration;
  EXPECT_EQ(translate({{"auto"}, {"http://x", "m"}}, keys), Result());
  for (const char* other : {"api", "AUTO", "OpenAI"}) {
    EXPECT_EQ(translate({{other}, {"http://x", "m"}}, keys), (Result{{"backend", other}}));
  }
  Result openai = {
      {"backend", "openai"}, {"base_url", "http://x"}, {"api_key", " "}, {"model_name", "m"}};
  EXPECT_EQ(translate({{"openai"}, {"http://x", "m"}}, keys), openai);
  openai["base_url"] = openai["api_key"] = nullptr;
  openai["model_name"] = "text-embedding-3-small";
  EXPECT_EQ(translate({{"openai"}, {{}, ""}}, {{"BRUNE_LLM_API_KEY", ""}}), openai);
  openai["api_key"] = "k2";
  EXPECT_EQ(translate({{"openai"}, {}}, {{"BRUNE_LLM_API_KEY", "k2"}}), openai);
  for (const char* key : {"k1", "k2"}) {  // the process's own environment, as it is now
    setenv("BRUNE_LLM_EMBEDDING_API_KEY", key, 1);
    openai["api_key"] = key;
    EXPECT_EQ(engine_config({{"openai"}, {}}), openai);
  }
}

TEST(SharedEnginesTest, EqualConfigurationsShareAnEngineUntilItsLastHold) {
  SharedEngines factory;
  const auto engine = factory.acquire();
  EXPECT_EQ(factory.acquire({}), engine);
  const auto other = factory.acquire({{"backend", "tfidf"}, {"dimension", 384}});
  EXPECT_EQ(
      std::set({engine, other, factory.acquire({{"dimension", "384"}}),
                factory.acquire({{"dimension", 384}}),
                factory.acquire({{"dimension", std::size_t{384}}}),
                factory.acquire({{"api_key", nullptr}}), factory.acquire({{"api_key", "None"}})})
          .size(),
      6U);

  EXPECT_EQ(failure_of([] { EngineValue(std::size_t{1} << 63U); }),
            "ValueError: no configuration holds a whole number beyond 64 bits");

  factory.release(engine);
  EXPECT_EQ(engine->status().state, "idle");
  factory.release(engine);
  EXPECT_EQ(engine->status().state, "closed");
  EXPECT_EQ(other->dimension(), 384);  // ready: it is another engine, and made as configured
  const auto next = factory.acquire();
  EXPECT_NE(next, engine);
  for (const auto& stranger : {engine, std::make_shared<EmbeddingEngine>()}) {
    EXPECT_EQ(failure_of([&] { factory.release(stranger); }),
              "ValueError: this embedding engine was not handed out by the factory");
  }
  EXPECT_EQ(next->status().state, "idle");
}

/// Uses the factory when it is closed, whose lock has to be free by then, and fails.
struct FailingToClose final : EmbeddingEngine {
  explicit FailingToClose(SharedEngines& used) : factory(used) {}
  void close() override {
    const testing::Waiting waiting("the lock of the factory that closes an engine");
    factory.acquire({{"backend", "api"}});
    throw RuntimeError("cannot close");
  }
  SharedEngines& factory;
};

TEST(SharedEnginesTest, FailuresLeaveNoEngineBehind) {
  bool can_make = false;
  SharedEngines factory([&](const EngineConfiguration&) -> std::shared_ptr<EmbeddingEngine> {
    if (!can_make) throw RuntimeError("cannot make");
    return std::make_shared<FailingToClose>(factory);
  });
  EXPECT_THROW(factory.acquire(), RuntimeError);
  can_make = true;
  const auto engine = factory.acquire();
  EXPECT_EQ(failure_of([&] { factory.release(engine); }), "RuntimeError: cannot close");
  EXPECT_NE(factory.acquire(), engine);
}

}  // namespace
}  // namespace tovana::embedding
