#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include "subprocess.h"
#include "tests/support/temp_folder.h"

namespace tovana::testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

/// A machine of the tool's own: what is installed, and what its settings say.
class TovanaEmbedEngine : public ::testing::Test {
 protected:
  TovanaEmbedEngine() {
    // Where the model library is not beside it.
    std::filesystem::copy_file(TOVANA_EMBED_PATH, path("tovana-embed"));
    // A library whose loading never ends, since nobody writes to the pipe.
    mkfifo(path("endless.so").c_str(), 0600);
  }

  std::string path(const std::string& name) const { return _folder.path() / name; }

  /// `library` is what the model library is: none, one whose load never ends, or one that is gone.
  std::vector<std::string> command(const std::string& library,
                                   const std::vector<std::string>& arguments) const {
    std::vector<std::string> environment = {"XDG_CONFIG_HOME=" + path("configuration")};
    if (library != "none") environment.push_back("TOVANA_MODEL_LIBRARY=" + path(library));
    return tool(environment, arguments, path("tovana-embed"));
  }

  void expect(const std::string& library, const std::vector<std::string>& arguments, int status,
              const std::string& output, const std::string& errors = "") const {
    const ProcessResult result = run(command(library, arguments));
    EXPECT_EQ(result.status, status) << result.errors;
    EXPECT_EQ(result.output, output);
    EXPECT_THAT(result.errors, StartsWith(errors.empty() ? "" : "tovana-embed: "));
    EXPECT_THAT(result.errors, HasSubstr(errors));
    EXPECT_EQ(result.errors.empty(), errors.empty()) << result.errors;
  }

  TempFolder _folder;
};

TEST_F(TovanaEmbedEngine, SaysWhatItIsDoing) {
  const std::string failure =
      "The embedding model could not be loaded (RuntimeError: TOVANA_MODEL_LIBRARY=" +
      path("gone.so") + ": there is no such file); the next attempt is in 30 s";
  expect("endless.so", {"status"}, 75, "The embedding model is still loading (0 s so far)\n");
  expect("endless.so", {"embed", "a", "--no-wait"}, 75, "",
         "The embedding model is still loading (0 s so far). Retry in a moment. Search by name or "
         "text (search with action symbols or code, or explore) does not need the model.\n");
  expect("endless.so", {"embed", "a", "--deadline", "0.1"}, 75, "", "is still loading");
  expect("gone.so", {"status", "--wait"}, 75, failure + "\n");
  expect(
      "gone.so", {"embed", "a", "--model", "m"}, 75, "",
      failure +
          "; tovana-embed pull m fetches a model that is not cached, --backend tfidf needs none\n");
  expect("none", {"status", "--wait", "--json"}, 0,
         "{\"backend\":\"tfidf\",\"detail\":\"sentence-transformers is not installed\","
         "\"state\":\"ready\"}\n");
  expect("gone.so", {"status", "--backend", "tfidf"}, 0, "The embedding model is ready (tfidf)\n");
}

TEST_F(TovanaEmbedEngine, EndsAWaitForTheModelOnCtrlC) {
  Subprocess waiting(command("endless.so", {"embed", "a", "--output", path("out")}));
  // The output is made before anything is waited for.
  while (std::distance(std::filesystem::directory_iterator(_folder.path()), {}) < 3) {
  }
  waiting.signal(SIGINT);
  const ProcessResult result = waiting.finish();
  EXPECT_EQ(result.status, 130);
  EXPECT_EQ(result.output + result.errors, "");
  EXPECT_FALSE(std::filesystem::exists(path("out")));
}

TEST_F(TovanaEmbedEngine, FallsBackAloudAndFollowsTheSettings) {
  const std::string vector = "{\"text\":\"ab\",\"vector\":[";
  const ProcessResult fallen = run(command("none", {"embed", "ab", "--backend", "local"}));
  EXPECT_EQ(fallen.status, 0);
  EXPECT_THAT(fallen.output, StartsWith(vector));
  EXPECT_THAT(
      fallen.errors,
      HasSubstr("sentence-transformers is not installed, so the vectors are those of tfidf"));

  write_file(path("configuration/tovana/settings.toml"), "[daemon]\nembedding_backend = 'tfidf'");
  expect("gone.so", {"status"}, 0, "The embedding model is ready (tfidf)\n");
  write_file(path("other.toml"), "[daemon]\nembedding_backend = 'openai'\n");
  expect("gone.so", {"status", "--settings", path("other.toml")}, 0,
         "The embedding model is ready (tfidf)\n", "no base_url configured");
  write_file(path("other.toml"), "[daemon]\nembedding_backend = 1\n");
  expect("none", {"status", "--settings", path("other.toml")}, 65, "",
         path("other.toml") + ":2: daemon.embedding_backend must be a text");
  expect("none", {"status", "--settings", path("missing.toml")}, 66, "", path("missing.toml"));
}

TEST_F(TovanaEmbedEngine, TellsWhetherStoredVectorsCompare) {
  sqlite3* daemon = nullptr;
  const auto sql = [&](const char* text) {
    ASSERT_EQ(sqlite3_exec(daemon, text, nullptr, nullptr, nullptr), SQLITE_OK);
  };
  const std::string database = path("x.db");
  expect("none", {"migrate-check", database}, 66, "", database + ": no such database");
  sqlite3_open(database.c_str(), &daemon);
  sql("CREATE TABLE other (a)");
  expect("none", {"migrate-check", database}, 65, "", "no such table: symbol_embeddings");
  sql("CREATE TABLE symbol_embeddings (model_name)");
  expect("endless.so", {"migrate-check", database}, 0,
         "no stored vectors, nothing to embed again\n");
  sql("INSERT INTO symbol_embeddings VALUES ('tfidf')");
  expect("none", {"migrate-check", database}, 0, "the stored vectors are those of tfidf\n");
  expect("endless.so", {"migrate-check", database, "--no-wait"}, 75, "", "is still loading");
  expect("gone.so",
         {"migrate-check", database, "--backend", "openai", "--base-url", "http://127.0.0.1:9"}, 1,
         "the stored vectors are not those of openai:text-embedding-3-small: they have to be "
         "embedded again\n");
  sqlite3_close(daemon);
}

}  // namespace
}  // namespace tovana::testing
