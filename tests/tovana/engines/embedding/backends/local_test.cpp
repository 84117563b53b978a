#include "tovana/engines/embedding/backends/local.h"

#include <barrier>
#include <latch>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/log_recorder.h"
#include "tests/tovana/engines/embedding/backends/fake_model_runtime.h"
#include "tovana/engines/embedding/backends/model_library.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Texts = std::vector<std::string>;

class LocalBackendTest : public ::testing::Test {
 protected:
  /// The log's lines since the last time, all of which are to be the component's own at info level.
  Texts log_lines() {
    Texts lines;
    for (const LogRecord& record : _log.records()) {
      EXPECT_EQ(record.logger, "engines.embedding");
      EXPECT_EQ(record.level, LogLevel::info);
      lines.push_back(record.message());
    }
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(_lines_seen));
    _lines_seen += lines.size();
    return lines;
  }

  FakeModelRuntime _runtime;
  TorchThreads _threads{&_runtime};
  Environment _environment;
  LocalEmbeddingBackend _backend{
      "m", {}, {.runtime = &_runtime, .threads = &_threads, .environment = &_environment}};

 private:
  tovana::testing::LogRecorder _log;
  std::size_t _lines_seen = 0;
};

TEST_F(LocalBackendTest, IsNamedAndSizedWithoutLoadingAnything) {
  struct Case {
    LocalEmbeddingBackend backend;
    std::string name;
    std::int64_t dimension;
  };
  const Case cases[] = {
      {LocalEmbeddingBackend(), "local:all-MiniLM-L6-v2", 384},
      {LocalEmbeddingBackend("all-mpnet-base-v2"), "local:all-mpnet-base-v2", 768},
      {LocalEmbeddingBackend("all-mpnet-base-v2", 0), "local:all-mpnet-base-v2", 768},
      {LocalEmbeddingBackend("all-mpnet-base-v2", 512), "local:all-mpnet-base-v2", 512},
      {LocalEmbeddingBackend("all-MiniLM-L12-v2"), "local:all-MiniLM-L12-v2", 384},
      {LocalEmbeddingBackend(""), "local:", 384},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(each.backend.name(), each.name);
    EXPECT_EQ(each.backend.dimension(), each.dimension) << each.name;
  }
  EXPECT_THAT(_runtime.take_calls(), IsEmpty());
}

TEST_F(LocalBackendTest, LoadsACachedModelOnceAndSaysSo) {
  _backend.warm_up();
  _backend.warm_up();
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("library", "cached m"));
  EXPECT_THAT(log_lines(), ElementsAre("Loaded sentence-transformers model: m"));
}

TEST_F(LocalBackendTest, FetchesWhatTheCacheLacksAndStartsAnewAfterAFailure) {
  _runtime.on_load_library = [] { throw ModelLibraryNotInstalled(); };
  EXPECT_THROW(_backend.warm_up(), ModelLibraryNotInstalled);
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("library"));
  EXPECT_THAT(log_lines(), IsEmpty());

  _runtime.on_load_library = [] {};
  _runtime.on_load_model = [](bool local_files_only) {
    if (local_files_only) throw std::bad_alloc();  // any error sends it to the hub
    throw RuntimeError("no network");
  };
  EXPECT_THROW(_backend.embed({"text"}), RuntimeError);
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("library", "cached m", "fetch m"));
  EXPECT_THAT(log_lines(), ElementsAre("Model m is not cached (std::bad_alloc), fetching it"));

  _runtime.on_load_model = [](bool local_files_only) {
    if (local_files_only) throw RuntimeError("not here");
  };
  _backend.warm_up();
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("library", "cached m", "fetch m"));
  EXPECT_THAT(log_lines(), ElementsAre("Model m is not cached (not here), fetching it",
                                       "Loaded sentence-transformers model: m"));
}

TEST_F(LocalBackendTest, ThreadsThatMeetInALoadShareOne) {
  constexpr int kThreads = 4;
  std::latch under_way(kThreads);
  _runtime.on_load_model = [&](bool) { under_way.wait(); };
  std::vector<std::jthread> workers;
  for (int i = 0; i < kThreads; ++i) {
    workers.emplace_back([&, i] {
      under_way.count_down();
      if (i % 2 == 0) {
        _backend.warm_up();
      } else {
        EXPECT_EQ(_backend.embed({"text"}).size(), 1U);
      }
    });
  }
  workers.clear();
  EXPECT_THAT(_runtime.take_calls(), ::testing::Contains("cached m").Times(1));
}

TEST_F(LocalBackendTest, EmbedsInOrderUnderTheBoundOfTheMoment) {
  _runtime.columns = 5;  // the model's own, whatever dimension() says
  EXPECT_THAT(_backend.embed({}), IsEmpty());
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("library", "cached m"));

  const std::vector<Vector> vectors = _backend.embed({"abc", "", "caf\xC3", "a\xFF\xFF"});
  EXPECT_THAT(vectors, ElementsAre(Vector{3, 1, 0, 0, 0}, Vector{0, 1, 0, 0, 0},
                                   Vector{6, 1, 0, 0, 0}, Vector{7, 1, 0, 0, 0}));
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("get", "set 2", "encode 2", "set 16"));

  _environment["TOVANA_EMBED_THREADS"] = "3";
  _runtime.on_encode = [] { throw RuntimeError("encode"); };
  EXPECT_THROW(_backend.embed({"text"}), RuntimeError);
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("set 3", "encode 3", "set 16"));

  _environment["TOVANA_EMBED_THREADS"] = "0";
  _runtime.on_encode = [] {};
  _backend.embed({"text"});
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("encode 16"));
}

TEST_F(LocalBackendTest, SeveralThreadsEncodeAtOnce) {
  constexpr int kThreads = 3;
  std::barrier all(kThreads);  // passed only if nothing keeps one out while another encodes
  _runtime.on_encode = [&] { all.arrive_and_wait(); };
  std::vector<std::jthread> workers;
  for (int i = 0; i < kThreads; ++i) {
    workers.emplace_back([&, i] {
      const std::string text(static_cast<std::size_t>(i), 'x');
      EXPECT_THAT(_backend.embed({text}), ElementsAre(Vector{static_cast<double>(i), 1}));
    });
  }
  workers.clear();
  EXPECT_THAT(_runtime.take_calls(), ::testing::Contains("encode 2").Times(kThreads));
  EXPECT_EQ(_runtime.default_threads(), 16);
}

}  // namespace
}  // namespace tovana::embedding
