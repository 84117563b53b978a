#include <barrier>
#include <cstdlib>
#include <latch>
#include <limits>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/child_process.h"
#include "tests/support/log_recorder.h"
#include "tests/support/waiting.h"
#include "tests/tovana/engines/embedding/backends/local/fake_model_runtime.h"
#include "tovana/engines/embedding/backends/local/local_surroundings.h"
#include "tovana/engines/embedding/backends/local/torch_threads.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {
namespace {

using namespace std::string_literals;
using namespace ::testing;
using namespace tovana::testing;

class LocalBackendTest : public Test {
 protected:
  FakeModelRuntime _runtime;
  TorchThreads _threads{&_runtime};
  Environment _environment;
  LocalEmbeddingBackend _backend{
      "m", {}, {.runtime = &_runtime, .threads = &_threads, .environment = &_environment}};
  LogRecorder _log;
};

TEST_F(LocalBackendTest, LoadsOnceFetchesWhatTheCacheLacksAndStartsAnewAfterAFailure) {
  _runtime.on_load_model = [](bool local_files_only) {
    if (local_files_only) throw std::bad_alloc();  // any error sends it to the hub
    throw RuntimeError("no network");
  };
  EXPECT_THROW(_backend.embed({"text"}), RuntimeError);
  _runtime.on_load_model = [](bool local_files_only) {
    if (local_files_only) throw RuntimeError("not here");
  };
  _backend.warm_up();
  _backend.warm_up();
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("library", "cached m", "fetch m",  //
                                                 "library", "cached m", "fetch m"));
  EXPECT_THAT(_log.take_lines(),
              ElementsAre("info Model m is not cached (std::bad_alloc), fetching it",
                          "info Model m is not cached (not here), fetching it",
                          "info Loaded sentence-transformers model: m"));
}

TEST_F(LocalBackendTest, EmbedsInOrderUnderTheBoundOfTheMoment) {
  EXPECT_THAT(_backend.embed({}), IsEmpty());
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("library", "cached m"));

  EXPECT_THAT(_backend.embed({"abc", "", "caf\xC3", "a\xFF\xFF"}),
              ElementsAre(Vector{3, 1}, Vector{0, 1}, Vector{6, 1}, Vector{7, 1}));
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("get", "set 2", "encode 2", "set 16"));
  EXPECT_THAT(_backend.embed({"abc"}, {.prompt_name = "query"}), ElementsAre(Vector{8, 1}));
  EXPECT_THAT(_backend.embed({"abc"}, {.prompt = "caf\xC3"}), ElementsAre(Vector{9, 1}));
  _runtime.take_calls();

  _environment["TOVANA_EMBED_THREADS"] = "3";
  _runtime.on_encode = [] { throw RuntimeError("encode"); };
  EXPECT_THROW(_backend.embed({"text"}), RuntimeError);
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("set 3", "encode 3", "set 16"));
}

TEST_F(LocalBackendTest, ThreadsThatMeetShareALoadAndEncodeAtOnce) {
  constexpr int kThreads = 3;
  std::latch under_way(kThreads);
  std::barrier all(kThreads);  // passed only if nothing keeps one out while another encodes
  _runtime.on_load_model = [&](bool) { under_way.wait(); };
  _runtime.on_encode = [&] {
    const Waiting waiting("all threads to encode at once");
    all.arrive_and_wait();
  };
  std::vector<std::jthread> workers;
  for (int i = 0; i < kThreads; ++i) {
    workers.emplace_back([&, i] {
      under_way.count_down();
      const std::string text(static_cast<std::size_t>(i), 'x');
      EXPECT_THAT(_backend.embed({text}), ElementsAre(Vector{static_cast<double>(i), 1}));
    });
  }
  workers.clear();
  EXPECT_THAT(_runtime.take_calls(),
              AllOf(Contains("cached m").Times(1), Contains("encode 2").Times(kThreads)));
  EXPECT_EQ(_runtime.get_num_threads(), 16);  // the default, of a thread that never computed
}

TEST_F(LocalBackendTest, GoesOnInAChildForkedAmidTheFirstCall) {
  std::vector<int> endings;
  bool is_child = false;
  const auto embed_in_child = [&] {
    if (is_child) return;
    endings.push_back(run_in_child([&] {
      is_child = true;
      return _backend.embed({"text"}).front() == Vector{4, 1} ? 0 : 1;
    }));
  };
  set_log_sink([&](const LogRecord& /*loaded*/) { embed_in_child(); });
  _runtime.on_get = embed_in_child;
  _backend.embed({"text"});
  EXPECT_THAT(endings, ElementsAre(0, 0));
}

TEST_F(LocalBackendTest, ThreadBoundIsSetOnlyBelowTorchsOwnAndGivenBackWhateverFails) {
  const auto run = [] { return 7; };
  EXPECT_EQ(_threads.bounded(2, run), 7);
  EXPECT_THAT(_runtime.take_calls(), IsEmpty());  // torch is not loaded, nor is it for this
  _runtime.load_library();
  _runtime.take_calls();
  for (const std::int64_t limit : {0, -1}) _threads.bounded(limit, run);
  EXPECT_THAT(_runtime.take_calls(), IsEmpty());
  _threads.bounded(16, run);
  _runtime.set_num_threads(5);  // somebody else's doing
  _threads.bounded(15, run);
  EXPECT_THAT(_runtime.take_calls(), ElementsAre("get", "set 5", "set 15", "set 16"));

  for (const std::int64_t failing : {3, 16}) {
    _runtime.on_set = [failing](std::int64_t count) {
      if (count == failing) throw RuntimeError("set");
    };
    int runs = 0;
    EXPECT_THROW(_threads.bounded(3, [&] { ++runs; }), RuntimeError);
    EXPECT_EQ(runs, failing == 3 ? 0 : 1);
  }
  EXPECT_THROW(_threads.bounded(3, [] { throw std::bad_alloc(); }), std::bad_alloc);
}

TEST(EmbedThreadsTest, ReadsAWholeNumberOrFallsBack) {
  const auto threads = [](const std::string& value) {
    const Environment environment = {{"TOVANA_EMBED_THREADS", value}};
    return embed_threads(&environment);
  };
  EXPECT_EQ(threads("\t\n\v\f\r+007\u00A0\u2003"), 7);
  EXPECT_EQ(threads("1_6"), 16);
  EXPECT_EQ(threads("-99999999999999999999999"), 0);
  constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(threads("9223372036854775806"), kLargest - 1);
  EXPECT_EQ(threads("9223372036854775808"), kLargest);
  for (const std::string& value : {""s, " "s, "2.5"s, "0x10"s, "+"s, "+-4"s, "- 4"s, "4 5"s, "_4"s,
                                   "4_"s, "1__6"s, "\u0664"s, "4\xC2"s, "4\0"s}) {
    EXPECT_EQ(threads(value), 2) << PrintToString(value);
  }
  setenv("TOVANA_EMBED_THREADS", "5", 1);  // the process's own counts only without a map
  const Environment without;
  EXPECT_EQ(embed_threads(&without), 2);
  EXPECT_EQ(embed_threads(), 5);
}

}  // namespace
}  // namespace tovana::embedding
