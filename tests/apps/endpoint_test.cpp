#include <csignal>
#include <future>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "subprocess.h"
#include "tests/support/http_server.h"

namespace tovana::testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kKey = "sk-secret";

/// The tool with the key in its environment and no proxy.
ProcessResult run_tool(const std::string& arguments, std::string_view input = "") {
  return run(tool({std::string("BRUNE_LLM_API_KEY=") + kKey}, split(arguments)), input);
}

/// An OpenAI-compatible endpoint whose vectors tell the length of the text, last text first.
void answer(HttpServer::Connection& connection) {
  const auto texts = nlohmann::json::parse(connection.body()).at("input");
  auto data = nlohmann::json::array();
  for (std::size_t i = texts.size(); i-- > 0;) {
    data.push_back({{"index", i}, {"embedding", {texts[i].get<std::string>().size(), 0.5}}});
  }
  connection.respond(200, nlohmann::json{{"data", data}}.dump());
}

TEST(TovanaEmbedEndpoint, EmbedsBatchByBatchInOrder) {
  const HttpServer server(answer);
  const ProcessResult result =
      run_tool("embed --backend openai --model m --batch-size 2 --base-url " + server.url("/v1/"),
               "a\nbcd\nef\n");
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "{\"text\":\"a\",\"vector\":[1,0.5]}\n{\"text\":\"bcd\",\"vector\":[3,0.5]}\n"
            "{\"text\":\"ef\",\"vector\":[2,0.5]}\n");
  ASSERT_EQ(server.requests().size(), 2U);
  EXPECT_EQ(server.connections(), 1U);
  EXPECT_THAT(server.requests()[1], AllOf(HasSubstr("POST /v1/embeddings HTTP/1.1"),
                                          HasSubstr(std::string("Bearer ") + kKey)));
}

TEST(TovanaEmbedEndpoint, SaysInOneLineWhyACallFailed) {
  const HttpServer server([](HttpServer::Connection& connection) {
    connection.respond(401, std::string("no such key: ") + kKey);
  });
  const std::string url = server.url("/embed");
  const ProcessResult result = run_tool("embed a --backend api --api-url " + url);
  EXPECT_EQ(result.status, 69);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "tovana-embed: API embedding failed: API embedding call to " + url +
                               " failed: HTTP 401, check the API key; the server says "
                               "'no such key: ***'\n");
}

TEST(TovanaEmbedEndpoint, DoesNotOutliveItsDeadlineNorCtrlC) {
  std::promise<void> asked;
  const HttpServer server([&](HttpServer::Connection& connection) {
    if (connection.path() == "/interrupted/embeddings") asked.set_value();
    connection.stall();
  });
  const std::string arguments = "embed a --backend openai --base-url " + server.url();
  const ProcessResult late = run_tool(arguments + "late --deadline 0.2");
  EXPECT_EQ(late.status, 69);
  EXPECT_THAT(late.errors, HasSubstr("deadline"));

  Subprocess interrupted(tool({}, split(arguments + "interrupted")));
  asked.get_future().wait();
  interrupted.signal(SIGINT);
  const ProcessResult result = interrupted.finish();
  EXPECT_EQ(result.status, 130);
  EXPECT_EQ(result.output + result.errors, "");
}

TEST(TovanaEmbedEndpoint, AsksForWhatABackendNeedsAndNoMore) {
  for (const std::string options : {"--backend api", "--backend openai",
                                    "--backend openai --api-url http://h --base-url http://h",
                                    "--backend api --api-url ftp://h", "--backend tfidf --model m",
                                    "--backend api --api-url http://h --model m",
                                    "--no-wait --wait-s 1", "--base-url http://h"}) {
    const ProcessResult result = run_tool("embed a " + options);
    EXPECT_EQ(result.status, 64) << result.errors;
    EXPECT_THAT(result.errors, AllOf(HasSubstr("--help"), Not(HasSubstr(kKey))));
  }
}

}  // namespace
}  // namespace tovana::testing
