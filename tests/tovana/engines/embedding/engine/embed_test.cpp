#include <cmath>
#include <future>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/failure_text.h"
#include "tests/tovana/engines/embedding/engine/engine_rig.h"
#include "tovana/engines/embedding/engine/engine.h"

namespace tovana::embedding {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class EmbedTest : public EngineRig {
 protected:
  std::string failure(const EmbedOptions& options) {
    return failure_of([&] { _engine->embed({"text"}, options); });
  }
};

TEST_F(EmbedTest, WaitsForTheModelAsLongAsItMay) {
  const std::string loading = "EmbeddingNotReadyError: The embedding model is still loading (";
  for (const EmbedOptions& options :
       {EmbedOptions{.wait = false, .deadline = in(9)}, EmbedOptions{.deadline = in(-1)},
        EmbedOptions{.deadline = std::nan("")}}) {
    EXPECT_EQ(failure(options), loading + "0 s so far)");
  }
  EXPECT_THROW(_engine->embed_single("text", {.wait = false}), EmbeddingNotReadyError);
  int waited = 0;
  for (const auto& [deadline, wait] :
       {std::pair<std::optional<double>, int>{5, 5}, {500, 60}, {std::nullopt, 60}}) {
    const EmbedOptions options = {.deadline = deadline ? in(*deadline) : deadline};
    auto caller = std::async(std::launch::async, [&] { return failure(options); });
    _clock.await_waiter(in(wait));
    _clock.advance(wait);
    waited += wait;
    EXPECT_EQ(caller.get(), loading + std::to_string(waited) + " s so far)");
  }
  auto caller = std::async(std::launch::async, [&] { return _engine->embed({"four", "three"}); });
  succeed();
  EXPECT_THAT(caller.get(), ElementsAre(ElementsAre(4, 1), ElementsAre(5, 1)));
  EXPECT_THAT(_engine->embed_single("four", {.wait = false}), ElementsAre(4, 1));
  EXPECT_THAT(_engine->embed({"four"}, {.deadline = in(-1)}), ElementsAre(ElementsAre(4, 1)));
}

TEST_F(EmbedTest, WhatComputesInThisProcessIsStoppedOnlyBeforeItStarts) {
  int asked = 0;
  bool stop = false;
  const EmbedOptions options = {.should_stop = [&] { return ++asked, stop; }};
  EXPECT_THAT(_engine->embed({}, options), IsEmpty());  // no texts need no engine
  EXPECT_EQ(_engine->status().state, "idle");
  succeed();
  EXPECT_EQ(failure(options), "none");
  EXPECT_EQ(asked, 1);
  _runtime.take_calls();
  stop = true;
  EXPECT_EQ(failure(options),
            "EmbeddingStopped: the embedding call was asked to stop before it started");
  EXPECT_THAT(_runtime.take_calls(), IsEmpty());
}

TEST_F(EmbedTest, AnEndpointGetsStopTestAndDeadline) {
  _engine = make({{"backend", "openai"}, {"base_url", "http://127.0.0.1:1"}});
  _engine->backend();
  int asked = 0;
  EXPECT_EQ(failure({.should_stop = [&] { return ++asked, true; }}),
            "EmbeddingStopped: OpenAI embedding stopped before attempt 1 of 3");
  EXPECT_EQ(asked, 1);
  EXPECT_THAT(failure({.deadline = 0}), HasSubstr("deadline"));
}

struct OneRow final : storage::Database {
  std::optional<storage::DatabaseRow> fetchone(const std::string& sql) override {
    EXPECT_EQ(sql, "SELECT model_name FROM symbol_embeddings LIMIT 1");
    return row;
  }
  std::optional<storage::DatabaseRow> row;
};

TEST_F(EmbedTest, StoredVectorsOfAnotherBackendNeedMigration) {
  using storage::NamedRow;
  using storage::PositionalRow;
  OneRow db;
  for (const auto& empty : {decltype(db.row)(), {PositionalRow{}}, {NamedRow{}}}) {
    db.row = empty;
    EXPECT_FALSE(_engine->check_backend_migration(db));
  }
  EXPECT_EQ(_engine->status().state, "idle");
  succeed();
  _engine->backend();
  join();
  _log.take_lines();

  storage::Blob same_bytes;
  for (const char byte : std::string_view("local:m")) same_bytes.push_back(std::byte(byte));
  const std::pair<storage::DatabaseRow, std::string> cases[] = {
      {PositionalRow{"local:m", "x"}, ""},
      {NamedRow{{"model_name", "local:m"}}, ""},
      {PositionalRow{"local:M"}, "local:M"},
      {PositionalRow{nullptr}, "None"},
      {PositionalRow{7}, "7"},
      {PositionalRow{same_bytes}, "a blob of 7 bytes"},
  };
  for (const auto& [row, changed_from] : cases) {
    db.row = row;
    EXPECT_EQ(_engine->check_backend_migration(db), !changed_from.empty());
    std::string lines;
    for (const std::string& line : _log.take_lines()) lines += line;
    EXPECT_EQ(lines, changed_from.empty() ? ""
                                          : "info Embedding backend changed from '" + changed_from +
                                                "' to 'local:m' — re-embedding needed");
  }
}

}  // namespace
}  // namespace tovana::embedding
