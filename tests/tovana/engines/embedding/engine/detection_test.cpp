#include "tovana/engines/embedding/engine/detection.h"

#include <string>

#include <gmock/gmock.h>

#include "tests/support/failure_text.h"
#include "tests/support/log_recorder.h"
#include "tests/tovana/engines/embedding/backends/local/fake_model_runtime.h"
#include "tovana/engines/embedding/backends/local/model_library.h"

namespace tovana::embedding {
namespace {

enum class Library { loads, missing, broken };

class DetectionTest : public ::testing::Test {
 protected:
  /// "NAME DIMENSION" of the backend, or the failure; then " because REASON", if there is one.
  std::string decide(const EngineConfiguration& config, Library library) {
    FakeModelRuntime runtime;
    runtime.on_load_library = [&] {
      if (library == Library::missing) throw ModelLibraryNotInstalled();
      if (library == Library::broken) throw RuntimeError("no libtorch.so");
    };
    runtime.on_load_model = [](bool) { FAIL() << "detection loads no model"; };
    std::string chosen, reason;
    const std::string failure = failure_of([&] {
      const auto backend = detect_backend(config, runtime, [&](const Fallback& fallback) {
        reason += " because " + fallback.reason;
      });
      chosen = backend->name() + " " + std::to_string(backend->dimension());
    });
    return (chosen.empty() ? failure : chosen) + reason;
  }

  testing::LogRecorder _log;
};

TEST_F(DetectionTest, DecidesByConfigurationAndLibrary) {
  using enum Library;
  const std::string no_api_url = " because API backend requested but no api_url configured";
  const std::string no_base_url = " because OpenAI backend requested but no base_url configured";
  const std::string no_library = " because sentence-transformers is not installed";
  const std::string local_failed = " because Local backend failed: ";
  const std::string bad_url = "ValueError: api_url must start with http:// or https://, got: 'ftp'";
  const std::string bad_model = "model_name must be a text, got null";
  const std::string bad_dimension = "dimension must be a whole number, got the text 'x'";
  const std::string bad_library = "RuntimeError: no libtorch.so";
  const struct {
    EngineConfiguration config;
    Library library;
    std::string outcome;
  } cases[] = {
      {{{"backend", "tfidf"}, {"dimension", 0}}, broken, "tfidf 256"},
      {{{"backend", "tfidf"}, {"dimension", 512}, {"api_url", "http://h"}}, broken, "tfidf 512"},

      {{{"backend", "api"}, {"api_url", ""}, {"base_url", "http://h"}, {"dimension", 8}},
       broken,
       "tfidf 8" + no_api_url},
      {{{"backend", "api"}, {"api_url", "http://h"}, {"model_name", "m"}}, broken, "api:api 384"},
      {{{"backend", "api"}, {"api_url", "ftp"}}, broken, bad_url},
      {{{"backend", "api"}, {"api_url", 5}},
       broken,
       "ValueError: api_url must be a text, got the number 5"},

      {{{"backend", "openai"}, {"base_url", nullptr}}, broken, "tfidf 256" + no_base_url},
      {{{"backend", "openai"}, {"base_url", ""}, {"api_url", "http://h"}},
       broken,
       "openai:text-embedding-3-small 1536"},
      {{{"backend", "openai"}, {"base_url", "http://h"}, {"model_name", "m"}, {"dimension", 3}},
       broken,
       "openai:m 3"},

      {{{"backend", "local"}, {"model_name", "m"}, {"dimension", 9}}, loads, "local:m 9"},
      {{{"backend", "local"}, {"model_name", "all-mpnet-base-v2"}},
       loads,
       "local:all-mpnet-base-v2 768"},
      {{{"backend", "local"}}, broken, bad_library},
      {{{"backend", "local"}, {"model_name", nullptr}}, loads, "ValueError: " + bad_model},
      {{{"backend", "local"}, {"api_url", "http://h"}}, missing, "tfidf 256" + no_library},

      {{{"backend", nullptr}, {"api_url", 5}}, loads, "local:all-MiniLM-L6-v2 384"},
      {{{"api_url", "http://h"}}, broken, bad_library},
      {{{"model_name", nullptr}, {"api_url", "http://h"}},
       loads,
       "api:api 384" + local_failed + bad_model},
      {{{"dimension", "x"}}, loads, "ValueError: " + bad_dimension + local_failed + bad_dimension},
      {{{"backend", "TFIDF"}, {"api_url", "http://h"}}, missing, "api:api 384" + no_library},
      {{{"backend", 7}, {"api_url", ""}}, missing, "tfidf 256" + no_library},
      {{{"api_url", "ftp"}}, missing, bad_url + no_library},
  };
  for (const auto& [config, library, outcome] : cases) {
    EXPECT_EQ(decide(config, library), outcome);
  }
}

TEST_F(DetectionTest, LogsWhatItDecides) {
  decide({{"backend", "openai"}}, Library::loads);
  decide({{"backend", "local"}}, Library::missing);
  decide({}, Library::loads);
  decide({{"model_name", nullptr}, {"api_url", "http://h"}}, Library::loads);
  decide({}, Library::missing);
  EXPECT_THAT(
      _log.take_lines(),
      ::testing::ElementsAre(
          "warning OpenAI backend requested but no base_url configured, falling back to TF-IDF",
          "warning Local backend requested but sentence-transformers not installed, falling back "
          "to TF-IDF",
          "info Using local embedding backend: all-MiniLM-L6-v2",
          "warning Failed to create local backend: model_name must be a text, got null",
          "info Using API embedding backend", "debug sentence-transformers not available",
          "info Using TF-IDF embedding backend (stdlib-only fallback)"));
}

}  // namespace
}  // namespace tovana::embedding
