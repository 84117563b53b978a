#include "tovana/engines/embedding/backends/http.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tovana/base/clock.h"
#include "tovana/base/logging.h"

namespace tovana::embedding {
namespace {

using Texts = std::vector<std::string>;
using Vectors = std::vector<Vector>;

/// Answers each request with the next of a list of responses, and remembers what it was sent.
class ScriptedTransport final : public http::Transport {
 public:
  struct Response {
    int status = 200;
    std::string body = {};
  };
  struct Sent {
    std::string url;
    http::Headers headers;
    std::string body;
  };

  http::Outcome send(const http::Request& request, http::ResponseSink& sink) override {
    sent.push_back({request.url, request.headers, std::string(request.body)});
    http::Outcome outcome;
    outcome.head.status = responses.at(sent.size() - 1).status;
    sink.head(outcome.head);
    sink.body(responses.at(sent.size() - 1).body);
    return outcome;
  }

  std::vector<Response> responses;
  std::vector<Sent> sent;
};

class HTTPBackendTest : public testing::Test {
 protected:
  HTTPBackendTest() {
    set_log_sink([this](const LogRecord& record) { _records.push_back(record); });
  }
  ~HTTPBackendTest() override { set_log_sink({}); }

  void reply(std::string body) { _transport.responses.push_back({200, std::move(body)}); }
  void fail(int status) { _transport.responses.push_back({status, ""}); }

  APIEmbeddingBackend api(std::optional<std::string> key = std::nullopt) {
    return APIEmbeddingBackend({.api_url = "http://127.0.0.1/embed/",
                                .api_key = key,
                                .transport = &_transport,
                                .wait = _wait});
  }
  OpenAIEmbeddingBackend openai(std::string base_url = "https://host/v1") {
    return OpenAIEmbeddingBackend(
        {.base_url = base_url, .api_key = "k", .transport = &_transport, .wait = _wait});
  }

  /// What a call fails with, as kind and message; empty when it does not.
  static std::string failure(const std::function<void()>& call) {
    try {
      call();
    } catch (const std::exception& error) {
      return failure_text(error);
    }
    return {};
  }

  ScriptedTransport _transport;
  std::vector<double> _waits;
  http::Wait _wait = [this](double seconds, const http::StopTest& should_stop, Clock&) {
    _waits.push_back(seconds);
    return should_stop && should_stop() ? http::WaitEnding::stopped : http::WaitEnding::elapsed;
  };
  std::vector<LogRecord> _records;
};

TEST_F(HTTPBackendTest, SendsEachDialectsBodyToItsUrl) {
  reply(R"({"embeddings": [[1, 2], [3, 4]]})");
  reply(R"({"embeddings": []})");
  EXPECT_EQ(api().embed({"a \"quoted\" text", "\xC3\xA9\xFF"}), (Vectors{{1, 2}, {3, 4}}));
  EXPECT_EQ(api("").embed({}), Vectors{});  // this dialect asks for nothing, too
  for (const char* base_url : {"https://host/v1", "https://host/v1///"}) {
    reply(R"({"data": [{"embedding": [5]}]})");
    EXPECT_EQ(openai(base_url).embed({"x"}), (Vectors{{5}}));
  }
  EXPECT_EQ(openai().embed({}, {.should_stop = [] { return true; }}), Vectors{});

  ASSERT_EQ(_transport.sent.size(), 4U);
  EXPECT_EQ(_transport.sent[0].url, "http://127.0.0.1/embed/");
  EXPECT_EQ(_transport.sent[0].body, "{\"texts\":[\"a \\\"quoted\\\" text\",\"\u00E9\uFFFD\"]}");
  EXPECT_FALSE(_transport.sent[0].headers.contains("authorization"));
  EXPECT_EQ(_transport.sent[1].body, R"({"texts":[]})");
  EXPECT_FALSE(_transport.sent[1].headers.contains("authorization"));
  for (const std::size_t call : {2U, 3U}) {
    EXPECT_EQ(_transport.sent[call].url, "https://host/v1/embeddings");
    EXPECT_EQ(_transport.sent[call].body, R"({"input":["x"],"model":"text-embedding-3-small"})");
    EXPECT_EQ(_transport.sent[call].headers.at("Authorization"), "Bearer k");
  }
}

TEST_F(HTTPBackendTest, ReadsRepliesInTheOrderOfTheirIndexes) {
  // Each item's embedding is its expected place.
  for (
      const char* data :
      {R"([{"index": 1, "embedding": [1]}, {"index": 0, "embedding": [0]}])",
       R"([{"embedding": [0]}, {"embedding": [1]}])",
       R"([{"index": 2, "embedding": [2]}, {"embedding": [0]}, {"index": 0, "embedding": [1]}])",
       R"([{"index": 0.5, "embedding": [1]}, {"index": true, "embedding": [2]},
               {"index": -3, "embedding": [0]}, {"index": 1, "embedding": [3]}])",
       R"([{"index": 9007199254740993, "embedding": [1]}, {"index": 9007199254740992.0, "embedding": [0]},
               {"index": 18446744073709551615, "embedding": [2]}])",
       R"([{"index": "b", "embedding": [1]}, {"index": "a", "embedding": [0]}])",
       R"([{"index": null, "embedding": [0]}])",
       R"([{"index": 5, "embedding": [9], "index": 0, "embedding": [0]}, {"index": 1, "embedding": [1]}])"}) {
    SCOPED_TRACE(data);
    reply(std::string(R"({"data": [{"embedding": []}], "object": "list", "data": )") + data + "}");
    const auto count = static_cast<std::size_t>(nlohmann::json::parse(data).size());
    const Vectors vectors = openai().embed(Texts(count, "text"));
    ASSERT_EQ(vectors.size(), count);
    for (std::size_t text = 0; text < count; ++text)
      EXPECT_EQ(vectors[text], (Vector{double(text)}));
  }
}

TEST_F(HTTPBackendTest, RefusesRepliesWithoutUsableVectors) {
  struct Case {
    bool is_openai;
    const char* reply;
    std::string failure;
  };
  const std::string no_embeddings =
      "RuntimeError: API response missing 'embeddings' key, got keys: ";
  const std::string no_data = "RuntimeError: Embedding response missing 'data' key, got: ";
  const Case cases[] = {
      {false, "[[1], [2]]", no_embeddings + "list"},
      {false, R"({"error": 1, "detail": {}, "error": 2})", no_embeddings + "['error', 'detail']"},
      {false, "{}", no_embeddings + "[]"},
      {false, "7", no_embeddings + "int"},
      {false, "7e0", no_embeddings + "float"},
      {true, "null", no_data + "NoneType"},
      {true, "false", no_data + "bool"},
      {true, "\"text\"", no_data + "str"},
      {false, R"({"embeddings": null})",
       "RuntimeError: API returned NoneType embeddings for 2 texts"},
      {true, R"({"data": {}})", "RuntimeError: API returned dict embeddings for 2 texts"},
      {false, R"({"embeddings": [[1], [2], [3]]})",
       "RuntimeError: API returned 3 embeddings for 2 texts"},
      {true, R"({"data": [{"embedding": [1]}]})",
       "RuntimeError: API returned 1 embeddings for 2 texts"},
      {true, R"({"data": [{"embedding": [1]}, {"index": 1}]})",
       "RuntimeError: Embedding response item 1 has no 'embedding', got: ['index']"},
      {true, R"({"data": [[1], [2]]})",
       "RuntimeError: Embedding response item 0 has no 'embedding', got: list"},
      {true, R"({"data": [{"embedding": [1]}, {"index": null, "embedding": [2]}]})",
       "RuntimeError: Embedding response item 1 has an 'index' that cannot be ordered: NoneType"},
      {true, R"({"data": [{"embedding": [1]}, {"index": "1", "embedding": [2]}]})",
       "RuntimeError: Embedding response item 1 has an 'index' that cannot be ordered against the "
       "others': some are strings, some are numbers"},
      {false, R"({"embeddings": [[1, 2], [3, "4"]]})",
       "RuntimeError: API returned an unusable embedding for text 1 (counted from 0): expected a "
       "number at position 1 of an array, got a string"},
      {true, R"({"data": [{"embedding": "AACAPw=="}, {"embedding": [1]}]})",
       "RuntimeError: API returned an unusable embedding for text 0 (counted from 0): expected an "
       "array of numbers, got a string"},
  };
  for (const auto& [is_openai, body, expected] : cases) {
    SCOPED_TRACE(body);
    reply(body);
    OpenAIEmbeddingBackend openai_backend = openai();
    APIEmbeddingBackend api_backend = api();
    _HTTPEmbeddingBackend& backend =
        is_openai ? static_cast<_HTTPEmbeddingBackend&>(openai_backend) : api_backend;
    const std::int64_t dimension = backend.dimension();
    EXPECT_EQ(failure([&] { backend.embed({"a", "b"}); }), expected);
    EXPECT_EQ(backend.dimension(), dimension);
  }
  EXPECT_TRUE(_records.empty());
}

TEST_F(HTTPBackendTest, LearnsItsDimensionOnlyInTheDialectThatDoes) {
  OpenAIEmbeddingBackend openai_backend = openai();
  EXPECT_EQ(openai_backend.name(), "openai:text-embedding-3-small");
  EXPECT_EQ(openai_backend.dimension(), 1536);
  reply(R"({"data": [{"embedding": [1, 2, 3]}, {"embedding": [1]}]})");  // unequal ones pass
  EXPECT_EQ(openai_backend.embed({"a", "b"}), (Vectors{{1, 2, 3}, {1}}));
  EXPECT_EQ(openai_backend.dimension(), 3);

  APIEmbeddingBackend api_backend = api();
  EXPECT_EQ(api_backend.name(), "api:api");
  reply(R"({"embeddings": [[1, 2, 3]]})");
  api_backend.embed({"a"});
  EXPECT_EQ(api_backend.dimension(), 384);
}

TEST_F(HTTPBackendTest, ReportsAFailedCallOnceAndGoesOn) {
  const std::string key = "sk-secret";
  APIEmbeddingBackend backend({.api_url = "http://user:pw@127.0.0.1/embed?token=t",
                               .api_key = key,
                               .transport = &_transport,
                               .wait = _wait});
  for (int attempt = 0; attempt < 3; ++attempt) fail(503);
  const std::string message = failure([&] { backend.embed({"a", "b"}); });
  EXPECT_EQ(message,
            "RuntimeError: API embedding failed: API embedding call to "
            "http://***@127.0.0.1/embed?token=*** failed after 3 attempts: HTTP 503");
  EXPECT_THAT(_waits, testing::ElementsAre(0.5, 1.0));
  ASSERT_EQ(_records.size(), 1U);
  EXPECT_EQ(_records[0].logger, "engines.embedding");
  EXPECT_EQ(_records[0].level, LogLevel::warning);
  EXPECT_EQ(_records[0].format, "%s HTTP/transport call failed (url=%s, texts=%d): %s");
  ASSERT_EQ(_records[0].arguments.size(), 4U);
  EXPECT_EQ(_records[0].arguments[0], LogArgument("API embedding"));
  EXPECT_EQ(_records[0].arguments[1], LogArgument("http://***@127.0.0.1/embed?token=***"));
  EXPECT_EQ(_records[0].arguments[2], LogArgument(std::int64_t{2}));
  EXPECT_EQ(_records[0].error->kind, "HttpFailure");
  EXPECT_THAT(_records[0].message() + _records[0].error->message,
              testing::Not(testing::HasSubstr(key)));

  fail(404);
  EXPECT_THAT(failure([&] { backend.embed({"a"}); }), testing::HasSubstr("failed: HTTP 404"));
  EXPECT_THAT(failure([&] { backend.embed({"a"}, {.deadline = system_clock().now() - 1}); }),
              testing::StartsWith("RuntimeError: API embedding failed: "));
  EXPECT_EQ(_transport.sent.size(), 4U);  // the 404 was not tried again, the late call not sent
  EXPECT_EQ(_records.size(), 3U);

  fail(429);
  reply(R"({"embeddings": [[1]]})");
  EXPECT_EQ(backend.embed({"a"}), (Vectors{{1}}));
  EXPECT_EQ(_records.size(), 3U);
}

TEST_F(HTTPBackendTest, StopsWithoutAWarning) {
  OpenAIEmbeddingBackend backend = openai();
  int asked = 0;
  const auto stop_at = [&](int ask) {
    asked = 0;
    return EmbedLimits{.should_stop = [&asked, ask] { return ++asked == ask; }};
  };
  EXPECT_EQ(failure([&] { backend.embed({"a"}, stop_at(1)); }),
            "EmbeddingStopped: OpenAI embedding stopped before attempt 1 of 3");
  EXPECT_TRUE(_transport.sent.empty());
  fail(500);
  EXPECT_EQ(failure([&] { backend.embed({"a"}, stop_at(2)); }),
            "EmbeddingStopped: OpenAI embedding stopped before attempt 2 of 3");
  EXPECT_EQ(_transport.sent.size(), 1U);
  EXPECT_TRUE(_records.empty());
}

TEST_F(HTTPBackendTest, TakesOneAttemptAtLeast) {
  for (const std::int64_t attempts : {0, -5, 1}) {
    fail(500);
    APIEmbeddingBackend backend(
        {.api_url = "http://h", .max_attempts = attempts, .transport = &_transport, .wait = _wait});
    EXPECT_NE(failure([&] { backend.embed({"a"}); }), "");
  }
  EXPECT_EQ(_transport.sent.size(), 3U);
  EXPECT_TRUE(_waits.empty());
}

TEST_F(HTTPBackendTest, RefusesUrlsOfOtherSchemes) {
  for (const char* url : {"HTTP://h", " http://h", "h/v1", "ftp://h", "http:/h", ""}) {
    EXPECT_EQ(
        failure([&] { APIEmbeddingBackend({.api_url = url}); }),
        "ValueError: api_url must start with http:// or https://, got: '" + std::string(url) + "'");
    EXPECT_EQ(failure([&] { OpenAIEmbeddingBackend({.base_url = url}); }),
              "ValueError: base_url must start with http:// or https://, got: '" +
                  std::string(url) + "'");
  }
}

}  // namespace
}  // namespace tovana::embedding
