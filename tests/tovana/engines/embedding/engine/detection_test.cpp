#include "tovana/engines/embedding/engine/detection.h"

#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/log_recorder.h"
#include "tests/tovana/engines/embedding/backends/fake_model_runtime.h"
#include "tovana/engines/embedding/backends/http.h"
#include "tovana/engines/embedding/backends/model_library.h"

namespace tovana::embedding {
namespace {

enum class Library { loads, missing, broken };

constexpr const char* kUrl = "http://127.0.0.1:9/v1";
constexpr const char* kMissing = "sentence-transformers is not installed";
constexpr const char* kNoApiUrl = "API backend requested but no api_url configured";
constexpr const char* kNoBaseUrl = "OpenAI backend requested but no base_url configured";

/// One row of the decision: what is configured and installed, and what comes of it.
struct Decision {
  EngineConfiguration config;
  Library library;
  std::string backend;  ///< Its name and dimension, or the failure of the detection.
  std::optional<std::string> reason = std::nullopt;
  std::vector<std::string> log = {};
};

const std::string kTfidfChosen = "info Using TF-IDF embedding backend (stdlib-only fallback)";
const std::string kApiChosen = "info Using API embedding backend";
const std::string kNotAvailable = "debug sentence-transformers not available";

std::string local_chosen(const std::string& model) {
  return "info Using local embedding backend: " + model;
}

std::vector<Decision> decisions() {
  using enum Library;
  const std::string null_model = "model_name must be a text, got null";
  const std::string bad_dimension = "dimension must be a whole number, got the text 'x'";
  return {
      {{{"backend", "tfidf"}}, broken, "tfidf 256"},
      {{{"backend", "tfidf"}, {"dimension", 0}}, broken, "tfidf 256"},
      {{{"backend", "tfidf"}, {"dimension", 512}, {"api_url", kUrl}}, broken, "tfidf 512"},

      {{{"backend", "api"}},
       broken,
       "tfidf 256",
       kNoApiUrl,
       {std::string("warning ") + kNoApiUrl + ", falling back to TF-IDF"}},
      {{{"backend", "api"}, {"api_url", ""}, {"base_url", kUrl}, {"dimension", 8}},
       broken,
       "tfidf 8",
       kNoApiUrl,
       {std::string("warning ") + kNoApiUrl + ", falling back to TF-IDF"}},
      {{{"backend", "api"}, {"api_url", kUrl}, {"model_name", "m"}}, broken, "api:api 384"},
      {{{"backend", "api"}, {"api_url", kUrl}, {"dimension", 512}}, broken, "api:api 512"},
      {{{"backend", "api"}, {"api_url", "HTTP://x"}},
       broken,
       "ValueError: api_url must start with http:// or https://, got: 'HTTP://x'"},
      {{{"backend", "api"}, {"api_url", 5}},
       broken,
       "ValueError: api_url must be a text, got the number 5"},

      {{{"backend", "openai"}, {"base_url", nullptr}},
       broken,
       "tfidf 256",
       kNoBaseUrl,
       {std::string("warning ") + kNoBaseUrl + ", falling back to TF-IDF"}},
      {{{"backend", "openai"}, {"base_url", ""}, {"api_url", kUrl}},
       broken,
       "openai:text-embedding-3-small 1536"},
      {{{"backend", "openai"}, {"base_url", kUrl}, {"model_name", "m"}, {"dimension", 3}},
       broken,
       "openai:m 3"},
      {{{"backend", "openai"}, {"base_url", "localhost"}},
       broken,
       "ValueError: base_url must start with http:// or https://, got: 'localhost'"},

      {{{"backend", "local"}}, loads, "local:all-MiniLM-L6-v2 384"},
      {{{"backend", "local"}, {"model_name", "m"}, {"dimension", 9}}, loads, "local:m 9"},
      {{{"backend", "local"}, {"api_url", kUrl}},
       missing,
       "tfidf 256",
       kMissing,
       {"warning Local backend requested but sentence-transformers not installed, falling back to "
        "TF-IDF"}},
      {{{"backend", "local"}}, broken, "RuntimeError: libtorch.so: not found"},
      {{{"backend", "local"}, {"model_name", nullptr}}, loads, "ValueError: " + null_model},

      {{}, loads, "local:all-MiniLM-L6-v2 384", std::nullopt, {local_chosen("all-MiniLM-L6-v2")}},
      {{{"backend", "Local"}, {"model_name", "all-mpnet-base-v2"}, {"api_url", 5}},
       loads,
       "local:all-mpnet-base-v2 768",
       std::nullopt,
       {local_chosen("all-mpnet-base-v2")}},
      {{{"backend", nullptr}, {"dimension", 512}},
       loads,
       "local:all-MiniLM-L6-v2 512",
       std::nullopt,
       {local_chosen("all-MiniLM-L6-v2")}},
      {{{"model_name", nullptr}, {"api_url", kUrl}},
       loads,
       "api:api 384",
       "Local backend failed: " + null_model,
       {"warning Failed to create local backend: " + null_model, kApiChosen}},
      {{{"model_name", nullptr}, {"backend", 7}},
       loads,
       "tfidf 256",
       "Local backend failed: " + null_model,
       {"warning Failed to create local backend: " + null_model, kTfidfChosen}},
      {{{"dimension", "x"}},
       loads,
       "ValueError: " + bad_dimension,
       "Local backend failed: " + bad_dimension,
       {"warning Failed to create local backend: " + bad_dimension, kTfidfChosen}},
      {{{"backend", "TFIDF"}, {"api_url", kUrl}},
       missing,
       "api:api 384",
       kMissing,
       {kNotAvailable, kApiChosen}},
      {{{"backend", "auto"}, {"api_url", ""}},
       missing,
       "tfidf 256",
       kMissing,
       {kNotAvailable, kTfidfChosen}},
      {{{"api_url", "ftp-server/embed"}},
       missing,
       "ValueError: api_url must start with http:// or https://, got: 'ftp-server/embed'",
       kMissing,
       {kNotAvailable, kApiChosen}},
      {{{"api_url", kUrl}}, broken, "RuntimeError: libtorch.so: not found"},
  };
}

class DetectionTest : public ::testing::TestWithParam<Decision> {};

TEST_P(DetectionTest, Decides) {
  const Decision& expected = GetParam();
  FakeModelRuntime runtime;
  runtime.on_load_library = [&] {
    if (expected.library == Library::missing) throw ModelLibraryNotInstalled();
    if (expected.library == Library::broken) throw RuntimeError("libtorch.so: not found");
  };
  runtime.on_load_model = [](bool) { FAIL() << "detection loads no model"; };
  testing::LogRecorder log;
  std::optional<std::string> reason;
  std::string decided;
  try {
    const auto backend = detect_backend(expected.config, runtime,
                                        [&](std::string given) { reason = std::move(given); });
    decided = backend->name() + " " + std::to_string(backend->dimension());
  } catch (const std::exception& error) {
    decided = failure_text(error);
  }
  EXPECT_EQ(decided, expected.backend);
  EXPECT_EQ(reason, expected.reason);
  EXPECT_EQ(log.take_lines(), expected.log);
}

INSTANTIATE_TEST_SUITE_P(Rows, DetectionTest, ::testing::ValuesIn(decisions()));

}  // namespace
}  // namespace tovana::embedding
