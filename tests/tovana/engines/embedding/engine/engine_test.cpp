#include "tovana/engines/embedding/engine/engine.h"

#include <cmath>
#include <deque>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/child_process.h"
#include "tests/support/failure_text.h"
#include "tests/support/log_recorder.h"
#include "tests/support/manual_clock.h"
#include "tests/support/waiting.h"
#include "tests/tovana/engines/embedding/backends/local/fake_model_runtime.h"
#include "tovana/base/condition_variable.h"
#include "tovana/base/mutex.h"
#include "tovana/engines/embedding/backends/local/model_library.h"
#include "tovana/engines/embedding/backends/tfidf/tfidf.h"
#include "tovana/engines/embedding/engine/engine_surroundings.h"
#include "tovana/engines/embedding/sharing/shared_engines.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {
namespace {

using namespace ::testing;
using namespace tovana::testing;
using Fields = decltype(EmbeddingStatus().to_dict());

const std::string kNotReady = "EmbeddingNotReadyError: The embedding model ";

/// An engine that forces the local backend, and what it stands on under a test's hand: each attempt
/// to load waits until the test says how it ends, time stands still, and the loader's thread can be
/// joined.
class EngineTest : public Test {
 protected:
  EngineTest() {
    _runtime.on_load_model = [this](bool local_files_only) { end_as_told(local_files_only); };
  }
  ~EngineTest() override {
    if (_engine != nullptr) _engine->close();
    succeed();  // whatever still waits at the gate
    join();
  }

  std::unique_ptr<EmbeddingEngine> make(EngineConfiguration config = kLocal) {
    return std::make_unique<EmbeddingEngine>(std::move(config), nullptr,
                                             EngineOptions{.surroundings = &_surroundings});
  }

  double in(double seconds) const { return _clock.now() + seconds; }

  /// Blocks until so many attempts have begun in all.
  void await_attempts(int count) {
    const Waiting waiting("attempt " + std::to_string(count) + " to load");
    const LockGuard guard(_lock);
    while (_attempts < count) _changed.wait(_lock);
  }

  /// Ends an attempt, the one under way or the next.
  void succeed() { tell(true); }
  void fail() { tell(false); }

  /// Lets an attempt fail, and returns once the loader waits to try again.
  void fail_attempt(double delay) {
    fail();
    _clock.await_waiter(in(delay));
  }

  /// What an attempt does in place of the model's load; the fetch that follows a failure fails too.
  void end_as_told(bool local_files_only = true) {
    const LockGuard guard(_lock);
    if (local_files_only) {
      ++_attempts;
      _changed.notify_all();
      const Waiting waiting("the test to end attempt " + std::to_string(_attempts));
      while (_endings.empty()) _changed.wait(_lock);
      _succeeds = _endings.front();
      _endings.pop_front();
    }
    if (!_succeeds) throw RuntimeError("no disk");
  }

  /// Blocks until the loaders have ended.
  void join() {
    const Waiting waiting("the loader to end");
    for (std::jthread& loader : _loaders) {
      if (loader.joinable()) loader.join();
    }
  }

  /// The backend's name, or what the engine says instead of it.
  std::string now(double timeout = 0) {
    std::string name;
    const std::string failure = failure_of([&] { name = _engine->wait_ready(timeout)->name(); });
    return name.empty() ? failure.substr(kNotReady.size()) : name;
  }

  std::string failure(const EmbedOptions& options) {
    return failure_of([&] { _engine->embed({"text"}, options); });
  }

  /// What a caller gets who waits, on a thread of its own, and is known to wait already.
  std::future<std::string> waiter(double timeout) {
    auto result = std::async(std::launch::async, [this, timeout] { return now(timeout); });
    _clock.await_waiter(in(timeout));
    return result;
  }

  inline static const EngineConfiguration kLocal = {{"backend", "local"}, {"model_name", "m"}};

  LogRecorder _log;
  ManualClock _clock;
  FakeModelRuntime _runtime;
  EngineSurroundings _surroundings = {
      .clock = &_clock, .runtime = &_runtime, .start_thread = [this](std::function<void()> loader) {
        _loaders.emplace_back(std::move(loader));
      }};
  std::deque<std::jthread> _loaders;  ///< All that an engine has started, one at a time.
  std::unique_ptr<EmbeddingEngine> _engine = make();

 private:
  void tell(bool succeeds) {
    const LockGuard guard(_lock);
    _endings.push_back(succeeds);
    _changed.notify_all();
  }

  Mutex _lock;
  ConditionVariable _changed;
  int _attempts TOVANA_GUARDED_BY(_lock) = 0;
  std::deque<bool> _endings TOVANA_GUARDED_BY(_lock);
  bool _succeeds TOVANA_GUARDED_BY(_lock) = false;
};

TEST_F(EngineTest, LoadsOnceWhoeverAsksAndHandsTheBackendToAll) {
  EXPECT_EQ(_engine->status(), EmbeddingStatus{.state = "idle"});
  EXPECT_EQ(now(), "is still loading (0 s so far)");  // and has started it
  std::vector<std::jthread> callers;
  for (int i = 0; i < 8; ++i) callers.emplace_back([&] { _engine->warm_up_async(); });
  callers.clear();
  await_attempts(1);
  auto impatient = waiter(5);
  auto patient = waiter(60);
  _clock.advance(12.5);
  EXPECT_EQ(impatient.get(), "is still loading (12 s so far)");
  EXPECT_EQ(_engine->status().to_dict(), (Fields{{"state", "loading"}, {"loading_s", 12.5}}));

  succeed();
  EXPECT_EQ(patient.get(), "local:m");
  EXPECT_EQ(_engine->status(), (EmbeddingStatus{.state = "ready", .backend = "local:m"}));
  EXPECT_EQ(_engine->backend_name() + std::to_string(_engine->dimension()), "local:m384");
  join();
  EXPECT_THAT(_log.take_lines(), ElementsAre("info Loaded sentence-transformers model: m",
                                             "info Embedding backend ready: local:m (12.5 s)"));

  _engine->close();
  EXPECT_EQ(now(-5), "local:m");
  EXPECT_EQ(_loaders.size(), 1U);
}

TEST_F(EngineTest, AForkedChildDestroysItWhoeverHoldsItsLockOrWaits) {
  const auto destroy_in_child = [&] {
    return run_in_child([&] {
      _engine.reset();
      return 0;
    });
  };
  int under_lock = -1;
  _surroundings.start_thread = [&](const auto& /*loader*/) {  // with the lock held
    under_lock = std::async(std::launch::async, destroy_in_child).get();
  };
  _engine = make();
  auto waiting = waiter(60);
  EXPECT_EQ(under_lock, 0);
  _engine->status();  // once the waiter has let go of the lock, and so waits
  EXPECT_EQ(destroy_in_child(), 0);
  _engine->close();
  EXPECT_EQ(waiting.get(), "was shut down before it was loaded");
}

TEST_F(EngineTest, FailuresAreToldAtOnceAndTriedAgainAfterGrowingWaits) {
  const std::string failure =
      "could not be loaded (RuntimeError: no disk); the next attempt is in ";
  _engine->warm_up_async();
  auto waiting = waiter(60);
  fail_attempt(30);
  EXPECT_EQ(waiting.get(), failure + "30 s");
  _clock.advance(12.25, /*wakes=*/false);
  EXPECT_EQ(_engine->status().retry_in_s, 17.8);
  EXPECT_EQ(now(60), failure + "18 s");  // nobody waits through a failure
  _engine->warm_up_async();
  EXPECT_EQ(_loaders.size(), 1U);
  _clock.advance(20, /*wakes=*/false);
  EXPECT_EQ(now(), failure + "0 s");
  EXPECT_EQ(
      _engine->status().to_dict(),
      (Fields{{"state", "unavailable"}, {"detail", "RuntimeError: no disk"}, {"retry_in_s", 0.0}}));

  std::vector<std::string> lines;
  for (const int delay : {30, 60, 120, 240, 480, 600, 600}) {
    if (delay > 30) fail_attempt(delay);
    _clock.advance(delay);
    lines.emplace_back("info Model m is not cached (no disk), fetching it");
    lines.push_back("warning The embedding model could not be loaded (attempt " +
                    std::to_string(lines.size() / 2 + 1) + "), trying again in " +
                    std::to_string(delay) + " s: RuntimeError: no disk");
  }
  await_attempts(8);
  _clock.advance(1.25);
  EXPECT_EQ(_engine->status(), (EmbeddingStatus{.state = "loading", .loading_s = 1.2}));
  succeed();
  join();
  EXPECT_EQ(now(), "local:m");
  lines.emplace_back("info Loaded sentence-transformers model: m");
  lines.emplace_back("info Embedding backend ready: local:m (1.2 s)");
  EXPECT_EQ(_log.take_lines(), lines);

  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(retry_delay(-kMost), 30);
  EXPECT_EQ(retry_delay(kMost), 600);
}

TEST_F(EngineTest, SaysInEveryStateWhyTheBackendIsNotTheBest) {
  _runtime.on_load_library = [&] {
    end_as_told();
    throw ModelLibraryNotInstalled();
  };
  const std::string reason = "sentence-transformers is not installed";
  const auto expect = [&](const EmbeddingStatus& status) {
    EXPECT_EQ(_engine->status(), status);
    EXPECT_EQ(_engine->fallback_reason(), reason);
  };
  _engine = make({});
  succeed();
  EXPECT_EQ(_engine->backend_name(), "tfidf");
  expect({.state = "ready", .backend = "tfidf", .detail = reason});

  _engine = make({{"api_url", "ftp"}});
  _engine->warm_up_async();
  EXPECT_EQ(_engine->fallback_reason(), std::nullopt);
  succeed();
  _clock.await_waiter(in(30));
  expect({.state = "unavailable",
          .detail = "ValueError: api_url must start with http:// or https://, got: 'ftp'",
          .retry_in_s = 30});
  _clock.advance(30);
  await_attempts(3);
  expect({.state = "loading", .detail = reason, .loading_s = 0});
  _engine->close();
  expect({.state = "closed", .detail = reason});
}

TEST_F(EngineTest, CloseEndsEverythingButAnAttemptUnderWay) {
  constexpr const char* kClosed = "was shut down before it was loaded";
  _engine->close();
  _engine->warm_up_async();
  EXPECT_EQ(now(60), kClosed);
  EXPECT_EQ(_loaders.size(), 0U);

  int attempts = 0;
  for (const bool succeeds : {true, false}) {
    _engine = make();
    _engine->warm_up_async();
    await_attempts(++attempts);
    auto waiting = waiter(60);
    _engine->close();
    EXPECT_EQ(waiting.get(), kClosed);
    succeeds ? succeed() : fail();
    join();
    EXPECT_EQ(_engine->status(), EmbeddingStatus{.state = "closed"});
    EXPECT_THAT(_log.take_lines(), SizeIs(succeeds ? 1 : 2));  // of the attempt alone
  }
  for (const bool destroys : {false, true}) {
    _engine = make();
    _engine->warm_up_async();
    fail_attempt(30);
    destroys ? _engine.reset() : _engine->close();
    join();  // without any time having passed
  }
  _engine = make();
  _engine->warm_up_async();
  await_attempts(attempts + 3);
  _engine.reset();  // in the middle of an attempt, which finds all that it touches
}

TEST_F(EngineTest, SurvivesAThreadThatDoesNotStartAndAnErrorOfNoKnownKind) {
  bool has_threads = false;
  _surroundings.start_thread = [&, start = _surroundings.start_thread](auto loader) {
    if (!has_threads) throw std::system_error(EAGAIN, std::generic_category());
    start(std::move(loader));
  };
  _runtime.on_load_library = [] { throw 1; };
  _engine = make();
  EXPECT_THROW(_engine->backend(), std::system_error);
  EXPECT_EQ(_engine->status(), EmbeddingStatus{.state = "idle"});
  has_threads = true;
  EXPECT_EQ(now(60),
            "could not be loaded (unknown error: not a std::exception); the next attempt is in 30"
            " s");
}

TEST_F(EngineTest, BackendOfTheCallersIsReadyAndLeftAlone) {
  auto backend = std::make_shared<TFIDFEmbeddingBackend>(3);
  EmbeddingEngine engine(kLocal, backend, {.surroundings = &_surroundings});
  engine.close();
  EXPECT_EQ(engine.wait_ready(0), backend);
  EXPECT_EQ(engine.status(), (EmbeddingStatus{.state = "ready", .backend = "tfidf"}));
  EXPECT_EQ(_loaders.size(), 0U);
}

TEST_F(EngineTest, WaitsForTheModelAsLongAsItMay) {
  const std::string loading = kNotReady + "is still loading (";
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

TEST_F(EngineTest, WhatComputesInThisProcessIsStoppedOnlyBeforeItStarts) {
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

TEST_F(EngineTest, AnEndpointGetsStopTestAndDeadline) {
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

TEST_F(EngineTest, StoredVectorsOfAnotherBackendNeedMigration) {
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
  std::vector<std::string> lines;
  for (const auto& [row, changed_from] : cases) {
    db.row = row;
    EXPECT_EQ(_engine->check_backend_migration(db), !changed_from.empty());
    if (changed_from.empty()) continue;
    lines.push_back("info Embedding backend changed from '" + changed_from +
                    "' to 'local:m' — re-embedding needed");
  }
  EXPECT_EQ(_log.take_lines(), lines);
}

TEST_F(EngineTest, NoLockIsHeldWhileLoadingLoggingOrEmbedding) {
  SharedEngines factory([&](EngineConfiguration config) { return make(std::move(config)); });
  const auto engine = factory.acquire(kLocal);
  int calls = 0;
  // On another thread, since the engine's own lock lets the thread that holds it in again.
  const auto call_back = [&] {
    const Waiting waiting("a call of the engine from within its callbacks");
    std::jthread([&] {
      engine->status();
      engine->fallback_reason();
      failure_of([&] { engine->wait_ready(0); });
      factory.release(factory.acquire(kLocal));
      ++calls;
    }).join();
  };
  _runtime.on_load_library = call_back;
  _runtime.on_load_model = [&](bool local_files_only) {
    call_back();
    end_as_told(local_files_only);
  };
  _runtime.on_encode = call_back;
  set_log_sink([&](const LogRecord&) { call_back(); });
  engine->warm_up_async();
  fail_attempt(30);
  _clock.advance(30);
  succeed();
  join();
  engine->embed_single("text");
  engine->embed({"text"}, {.should_stop = [&] { return call_back(), false; }});
  EXPECT_EQ(calls, 4 + 3 + 4 + 2 + 1);  // library, model, log lines, encode, stop test
}

TEST(LoaderThreadTest, IsNamedAndTakesNoSignals) {
  FakeModelRuntime runtime;
  std::string name(16, '\0');
  sigset_t blocked;
  runtime.on_load_library = [&] {
    pthread_getname_np(pthread_self(), name.data(), name.size());
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  };
  const EngineSurroundings surroundings = {.runtime = &runtime};
  EmbeddingEngine({{"backend", "local"}}, nullptr, {.surroundings = &surroundings}).backend();
  EXPECT_STREQ(name.c_str(), "tovana-embeddin");
  EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);  // the caller's thread is as it was
}

TEST(SystemClockTest, WaitsWithoutEndInLongSlices) {
  Mutex mutex;
  ConditionVariable changed;
  int waits = 0;
  bool told = false;
  const LockGuard guard(mutex);
  const std::jthread teller([&] {
    const LockGuard while_it_waits(mutex);
    told = true;
    changed.notify_all();
  });
  while (!told) {
    ++waits;
    system_clock().wait_until(changed, mutex, HUGE_VAL);
  }
  EXPECT_LT(waits, 10);
}

}  // namespace
}  // namespace tovana::embedding
