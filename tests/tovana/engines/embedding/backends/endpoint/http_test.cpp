#include "tovana/engines/embedding/backends/endpoint/http.h"

#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/failure_text.h"
#include "tests/support/log_recorder.h"
#include "tovana/base/clock.h"
#include "tovana/engines/http/json.h"
#include "tovana/engines/http/transport.h"

namespace tovana::embedding {
namespace {

using namespace ::testing;
using Texts = std::vector<std::string>;
using Vectors = std::vector<Vector>;

class HTTPBackendTest : public Test, public http::Transport {
 protected:
  /// Answers with the next response, and remembers "URL BODY AUTHORIZATION".
  http::Outcome send(const http::Request& request, http::ResponseSink& sink) override {
    EXPECT_EQ(request.idle_timeout_s, timeout);
    const auto key = request.headers.find("Authorization");
    sent.push_back(request.url + " " + std::string(request.body) +
                   (key == request.headers.end() ? "" : " " + key->second));
    const auto& [status, body] = responses.at(sent.size() - 1);
    http::Outcome outcome;
    outcome.head.status = status;
    sink.head(outcome.head);
    if (!sink.body(body)) outcome.ending = http::Ending::aborted;
    return outcome;
  }

  void reply(std::string body) { responses.emplace_back(200, std::move(body)); }
  void fail(int status) { responses.emplace_back(status, ""); }

  APIEmbeddingBackend api(const std::optional<std::string>& key = std::nullopt,
                          const std::string& url = "http://127.0.0.1/embed/") {
    return APIEmbeddingBackend(
        {.api_url = url, .api_key = key, .timeout = timeout, .transport = this, .wait = wait});
  }
  OpenAIEmbeddingBackend openai(const std::string& base_url = "https://host/v1") {
    return OpenAIEmbeddingBackend(
        {.base_url = base_url, .api_key = "k", .timeout = timeout, .transport = this});
  }

  const Texts two = {"a", "b"};
  const double timeout = 7;
  std::vector<std::pair<int, std::string>> responses;
  std::vector<std::string> sent;
  std::vector<double> waits;
  http::Wait wait = [this](double seconds, const http::StopTest&, Clock&) {
    waits.push_back(seconds);
    return http::WaitEnding::elapsed;
  };
  tovana::testing::LogRecorder log;
};

TEST_F(HTTPBackendTest, SendsEachDialectsBodyToItsUrlAndLearnsOnlyOnesDimension) {
  reply(R"({"embeddings": [[1, 2], [3, 4]]})");
  reply(R"({"embeddings": []})");
  APIEmbeddingBackend fixed = api("");
  EXPECT_EQ(fixed.embed({"a \"quoted\" text", "\xC3\xA9\xFF"}), (Vectors{{1, 2}, {3, 4}}));
  EXPECT_EQ(fixed.dimension(), 384);
  EXPECT_THAT(fixed.embed({}), IsEmpty());  // this dialect asks for nothing, too
  for (const char* base_url : {"https://host/v1", "https://host/v1///"}) {
    OpenAIEmbeddingBackend learning = openai(base_url);
    EXPECT_EQ(learning.dimension(), 1536);
    reply(R"({"data": [{"embedding": [5, 6, 7]}, {"embedding": [8]}]})");  // unequal ones pass
    EXPECT_EQ(learning.embed({"x", "y"}), (Vectors{{5, 6, 7}, {8}}));
    EXPECT_EQ(learning.dimension(), 3);
    EXPECT_THAT(learning.embed({}, {.should_stop = [] { return true; }}), IsEmpty());
  }
  const std::string asked_twice =
      R"(https://host/v1/embeddings {"input":["x","y"],"model":"text-embedding-3-small"} Bearer k)";
  EXPECT_THAT(sent,
              ElementsAre("http://127.0.0.1/embed/ "
                          "{\"texts\":[\"a \\\"quoted\\\" text\",\"\u00E9\uFFFD\"]}",
                          R"(http://127.0.0.1/embed/ {"texts":[]})", asked_twice, asked_twice));
}

TEST_F(HTTPBackendTest, ReadsRepliesInTheOrderOfTheirIndexes) {
  // Items as INDEX:PLACE, an index that is missing as "-".
  for (const std::string items :
       {"2:2 -:0 0:1", "0.5:1 true:2 -3:0 1:3", "\"b\":1 \"a\":0", "null:0",
        "9007199254740993:1 9007199254740992.0:0 18446744073709551615:2",
        "7:0 7:1 7:2 7:3 7:4 7:5 7:6 7:7 7:8 7:9 7:10 7:11 7:12 7:13 7:14 7:15 7:16 7:17"}) {
    std::istringstream words(items);
    std::string data;
    Vectors expected;
    for (std::string item; words >> item;) {
      const std::size_t colon = item.find(':');
      const std::string index = item.substr(0, colon);
      data += (data.empty() ? "{" : ",{") + (index == "-" ? "" : "\"index\":" + index + ",") +
              "\"embedding\":[" + item.substr(colon + 1) + "]}";
      expected.push_back({static_cast<double>(expected.size())});
    }
    reply("{\"object\":\"list\",\"data\":[" + data + "]}");
    EXPECT_EQ(openai().embed(std::vector<std::string>(expected.size(), "text")), expected) << items;
  }
}

TEST_F(HTTPBackendTest, RefusesRepliesWithoutUsableVectors) {
  const std::string item = "Embedding response item ", count = "API returned ";
  const std::string no_vectors = "API response missing 'embeddings' key, got keys: ";
  const std::string unordered = item + "1 has an 'index' that cannot be ordered";
  const struct {
    bool is_openai;
    std::string body, problem;
  } cases[] = {
      {false, "{}", no_vectors + "[]"},
      {false, "7", no_vectors + "int"},
      {false, "7e0", no_vectors + "float"},
      {false, "false", no_vectors + "bool"},
      {false, "\"text\"", no_vectors + "str"},
      {false, R"({"error": 1, "detail": {}, "error": 2})", no_vectors + "['error', 'detail']"},
      {false, R"({"embeddings": [[1], [2], [3]]})", count + "3 embeddings for 2 texts"},
      {false, R"({"embeddings": [[1, 2], [3, "4"]]})",
       "API returned an unusable embedding for text 2 of the 2 sent to http://127.0.0.1/embed/: "
       "expected a number at position 1 of an array, got a string"},
      {true, "[]", "Embedding response missing 'data' key, got: list"},
      {true, R"({"data": {}})", count + "dict embeddings for 2 texts"},
      {true, R"({"data": [{"embedding": [1]}, {"index": 1}]})",
       item + "1 has no 'embedding', got: ['index']"},
      {true, R"({"data": [[1], [2]]})", item + "0 has no 'embedding', got: list"},
      {true, R"({"data": [{"embedding": [1]}, {"index": null, "embedding": [2]}]})",
       unordered + ": NoneType"},
      {true, R"({"data": [{"embedding": [1]}, {"index": "1", "embedding": [2]}]})",
       unordered + " against the others': some are strings, some are numbers"},
  };
  OpenAIEmbeddingBackend learning = openai();
  for (const auto& [is_openai, body, problem] : cases) {
    reply(body);
    EXPECT_EQ(failure_of([&] { is_openai ? learning.embed(two) : api().embed(two); }),
              "RuntimeError: " + problem);
  }
  EXPECT_EQ(learning.dimension(), 1536);
  EXPECT_THAT(log.take_lines(), IsEmpty());
}

TEST_F(HTTPBackendTest, BoundsRepliesAndWhatItTellsOfThem) {
  reply("{\"sk-SECRET\":0,\"" + std::string(500'000, 'x') + "\":0,\"y\":0}");
  const std::string fault = failure_of([&] { api("sk-secret").embed({"a"}); });
  EXPECT_THAT(fault, StartsWith("RuntimeError: API response missing 'embeddings' key, "
                                "got keys: ['***', 'xxx"));
  EXPECT_LT(fault.size(), 1100U);

  const auto embed_four = [&](std::size_t numbers, std::size_t blanks) {
    std::string others = "0";
    while (--numbers > 0) others += ",0";
    reply("{\"embeddings\":[[0],[0],[0],[0]],\"more\":[" + others + "]}" +
          std::string(blanks, ' '));
    return failure_of([&] { api().embed({"a", "b", "c", "d"}); });
  };
  EXPECT_EQ(embed_four(1'100'000, 800'000), "none");
  EXPECT_THAT(embed_four(1'200'000, 1), HasSubstr("more than 1179"));
  EXPECT_THAT(embed_four(1, 5'000'000), HasSubstr("larger than 4 MiB"));
}

TEST_F(HTTPBackendTest, ReportsAFailureOnceAndAStopNever) {
  APIEmbeddingBackend backend = api("sk-secret", "http://user:pw@127.0.0.1/embed?token=t");
  const std::string url = "http://***@127.0.0.1/embed?token=***";
  const std::string failure = "API embedding call to " + url + " failed after 3 attempts: HTTP 503";
  for (int attempt = 0; attempt < 3; ++attempt) fail(503);
  EXPECT_EQ(failure_of([&] { backend.embed(two); }),
            "RuntimeError: API embedding failed: " + failure);
  EXPECT_THAT(waits, ElementsAre(0.5, 1.0));
  const auto error = log.records().at(0).error;
  EXPECT_EQ(error->kind + ": " + error->message, "HttpFailure: " + failure);
  EXPECT_THAT(log.take_lines(),
              ElementsAre("warning API embedding HTTP/transport call failed (url=" + url +
                          ", texts=2): " + failure));
  EXPECT_THROW(backend.embed(two, {.deadline = system_clock().now() - 1}), RuntimeError);

  fail(404);
  EXPECT_THAT(failure_of([&] { openai("https://host/v1?api-version=1").embed({"a"}); }),
              EndsWith("give a base URL without a query"));
  EXPECT_THAT(sent, SizeIs(4));  // the late call was not sent
  EXPECT_THAT(sent.back(), StartsWith("https://host/v1?api-version=1/embeddings "));
  EXPECT_THAT(log.take_lines(), SizeIs(2));

  EXPECT_EQ(failure_of([&] { backend.embed(two, {.should_stop = [] { return true; }}); }),
            "EmbeddingStopped: API embedding stopped before attempt 1 of 3");
  EXPECT_THAT(log.take_lines(), IsEmpty());
}

TEST_F(HTTPBackendTest, RefusesUrlsOfOtherSchemes) {
  for (const std::string url : {"HTTP://h", " http://h", "http:/h", ""}) {
    const std::string problem = "_url must start with http:// or https://, got: '" + url + "'";
    EXPECT_EQ(failure_of([&] { api({}, url); }), "ValueError: api" + problem);
    EXPECT_EQ(failure_of([&] { openai(url); }), "ValueError: base" + problem);
  }
  EXPECT_THAT(failure_of([&] { api({}, "http:/user:hunter2@h"); }), EndsWith("'***@h'"));
}

}  // namespace
}  // namespace tovana::embedding
