#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/http_server.h"
#include "tests/support/log_recorder.h"
#include "tests/tovana/engines/embedding/engine/gated_load.h"
#include "tovana/engines/embedding/backends/embedding_stopped.h"
#include "tovana/engines/embedding/backends/tfidf.h"
#include "tovana/engines/embedding/engine/engine.h"

namespace tovana::embedding {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// The kind and message of what a call throws; "none" if it returns.
template <class Call>
std::string failure_of(Call&& call) {
  try {
    std::forward<Call>(call)();
  } catch (const std::exception& error) {
    return failure_text(error);
  }
  return "none";
}

class EmbedTest : public ::testing::Test {
 protected:
  ~EmbedTest() override {
    _engine->close();
    _load.succeed();
    _load.join();
  }

  double in(double seconds) const { return _load.clock.now() + seconds; }

  GatedLoad _load;
  std::unique_ptr<EmbeddingEngine> _engine = _load.engine();
};

TEST_F(EmbedTest, NoTextsNeedNoEngine) {
  const EmbedOptions options = {.should_stop = [] { return ADD_FAILURE(), true; }};
  EXPECT_THAT(_engine->embed({}, options), IsEmpty());
  EXPECT_EQ(_engine->status().state, "idle");
  _engine->close();
  EXPECT_THAT(_engine->embed({}, options), IsEmpty());
}

TEST_F(EmbedTest, WaitsForTheModelAsLongAsItMay) {
  const std::string loading = "EmbeddingNotReadyError: The embedding model is still loading (";
  EXPECT_EQ(failure_of([&] { _engine->embed({"text"}, {.wait = false, .deadline = in(9)}); }),
            loading + "0 s so far)");
  EXPECT_EQ(failure_of([&] { _engine->embed({"text"}, {.deadline = in(-1)}); }),
            loading + "0 s so far)");
  EXPECT_EQ(failure_of([&] { _engine->embed({"text"}, {.deadline = std::nan("")}); }),
            loading + "0 s so far)");
  const struct {
    std::optional<double> deadline;
    double wait;
  } cases[] = {{in(5), 5}, {in(500), 60}, {std::nullopt, 60}};
  double waited = 0;
  for (const auto& each : cases) {
    std::optional<double> deadline = each.deadline;
    if (deadline) *deadline += waited;
    auto caller = std::async(std::launch::async, [&] {
      return failure_of([&] { _engine->embed({"text"}, {.deadline = deadline}); });
    });
    _load.clock.await_waiter(in(each.wait));
    _load.clock.advance(each.wait);
    waited += each.wait;
    EXPECT_EQ(caller.get(), loading + std::to_string(static_cast<int>(waited)) + " s so far)");
  }
  auto caller = std::async(std::launch::async, [&] { return _engine->embed({"four", "three"}); });
  _load.succeed();
  EXPECT_THAT(caller.get(), ElementsAre(ElementsAre(4, 1), ElementsAre(5, 1)));
  EXPECT_THAT(_engine->embed_single("four", {.wait = false}), ElementsAre(4, 1));
  EXPECT_THAT(_engine->embed({"four"}, {.deadline = in(-1)}), ElementsAre(ElementsAre(4, 1)));
}

TEST_F(EmbedTest, WhatComputesInThisProcessIsStoppedOnlyBeforeItStarts) {
  _load.succeed();
  _engine->backend();
  int asked = 0;
  bool stop = false;
  const EmbedOptions options = {.should_stop = [&] { return ++asked, stop; }};
  EXPECT_EQ(_engine->embed({"text"}, options).size(), 1U);
  EXPECT_EQ(asked, 1);
  _load.runtime.take_calls();
  stop = true;
  EXPECT_EQ(failure_of([&] { _engine->embed({"text"}, options); }),
            "EmbeddingStopped: the embedding call was asked to stop before it started");
  EXPECT_THAT(_load.runtime.take_calls(), IsEmpty());
  EXPECT_THROW(_engine->embed({"text"}, {.should_stop = []() -> bool { throw 1; }}), int);
  _load.runtime.on_encode = [] { throw RuntimeError("no memory"); };
  EXPECT_EQ(failure_of([&] { _engine->embed_single("text"); }), "RuntimeError: no memory");
  EXPECT_TRUE(_engine->status().ready());
}

TEST(EmbedThroughEndpointTest, HandsStopTestDeadlineAndKeyToTheEndpoint) {
  testing::HttpServer server([](testing::HttpServer::Connection& connection) {
    connection.respond(200, R"({"data":[{"index":0,"embedding":[1,2,3]}]})");
  });
  testing::LogRecorder log;
  EmbeddingEngine engine(
      {{"backend", "openai"}, {"base_url", server.url("/v1")}, {"api_key", "secret"}});
  EXPECT_THAT(engine.embed_single("text"), ElementsAre(1, 2, 3));
  EXPECT_EQ(engine.dimension(), 3);
  EXPECT_THAT(server.requests(), ElementsAre(HasSubstr("Authorization: Bearer secret\r\n")));

  int asked = 0;
  EXPECT_EQ(engine.embed({"text"}, {.should_stop = [&] { return ++asked, false; }}).size(), 1U);
  EXPECT_EQ(asked, 1);  // by the endpoint's attempt alone
  EXPECT_THAT(failure_of([&] { engine.embed({"text"}, {.should_stop = [] { return true; }}); }),
              ::testing::StartsWith("EmbeddingStopped: "));
  EXPECT_THAT(failure_of([&] { engine.embed({"text"}, {.deadline = system_clock().now() - 1}); }),
              ::testing::StartsWith("RuntimeError: "));
  EXPECT_EQ(server.requests().size(), 2U);
}

/// A database with one row, or none.
class OneRow final : public storage::Database {
 public:
  explicit OneRow(std::optional<storage::DatabaseRow> row = std::nullopt) : _row(std::move(row)) {}
  std::optional<storage::DatabaseRow> fetchone(const std::string& sql) override {
    EXPECT_EQ(sql, "SELECT model_name FROM symbol_embeddings LIMIT 1");
    return _row;
  }

 private:
  std::optional<storage::DatabaseRow> _row;
};

TEST_F(EmbedTest, StoredVectorsOfAnotherBackendNeedMigration) {
  using storage::NamedRow;
  using storage::PositionalRow;
  testing::LogRecorder log;
  for (OneRow empty : {OneRow(), OneRow(PositionalRow{}), OneRow(NamedRow{})}) {
    EXPECT_FALSE(_engine->check_backend_migration(empty));
  }
  EXPECT_EQ(_engine->status().state, "idle");

  OneRow old_rows(PositionalRow{"tfidf", 5});
  auto early = std::async(std::launch::async, [&] {
    return failure_of([&] { _engine->check_backend_migration(old_rows); });
  });
  _load.clock.await_waiter(in(DEFAULT_WAIT_S));
  _load.clock.advance(DEFAULT_WAIT_S);
  EXPECT_THAT(early.get(), HasSubstr("is still loading (60 s so far)"));
  _load.succeed();
  _load.join();
  log.take_lines();

  const auto changed = [](const std::string& stored) {
    return "info Embedding backend changed from '" + stored +
           "' to 'local:m' — re-embedding needed";
  };
  const struct {
    storage::DatabaseRow row;
    std::vector<std::string> lines;
  } cases[] = {
      {PositionalRow{"local:m"}, {}},
      {NamedRow{{"model_name", "local:m"}}, {}},
      {PositionalRow{"tfidf"}, {changed("tfidf")}},
      {NamedRow{{"model_name", "tfidf"}}, {changed("tfidf")}},
      {PositionalRow{"local:M"}, {changed("local:M")}},
      {PositionalRow{nullptr}, {changed("None")}},
      {PositionalRow{7}, {changed("7")}},
  };
  for (const auto& [row, lines] : cases) {
    OneRow db(row);
    EXPECT_EQ(_engine->check_backend_migration(db), !lines.empty());
    EXPECT_EQ(log.take_lines(), lines);
  }
}

}  // namespace
}  // namespace tovana::embedding
