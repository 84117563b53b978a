#include <functional>
#include <future>
#include <limits>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/failure_text.h"
#include "tests/tovana/engines/embedding/engine/engine_rig.h"
#include "tovana/engines/embedding/backends/local/model_library.h"
#include "tovana/engines/embedding/backends/tfidf/tfidf.h"
#include "tovana/engines/embedding/engine/engine.h"
#include "tovana/engines/embedding/sharing/shared_engines.h"

namespace tovana::embedding {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

const std::string kNotReady = "EmbeddingNotReadyError: The embedding model ";

class LifecycleTest : public EngineRig {
 protected:
  /// The backend's name, or what the engine says instead of it.
  std::string now(double timeout = 0) {
    std::string name;
    const std::string failure = failure_of([&] { name = _engine->wait_ready(timeout)->name(); });
    return name.empty() ? failure.substr(kNotReady.size()) : name;
  }

  /// What a caller gets who waits, on a thread of its own, and is known to wait already.
  std::future<std::string> waiter(double timeout) {
    auto result = std::async(std::launch::async, [this, timeout] { return now(timeout); });
    _clock.await_waiter(in(timeout));
    return result;
  }
};

TEST_F(LifecycleTest, LoadsOnceWhoeverAsksAndHandsTheBackendToAll) {
  EXPECT_EQ(_engine->status(), EmbeddingStatus{.state = "idle"});
  EXPECT_EQ(now(), "is still loading (0 s so far)");  // and has started it
  std::vector<std::jthread> callers;
  for (int i = 0; i < 8; ++i) callers.emplace_back([&] { _engine->warm_up_async(); });
  callers.clear();
  await_attempts(1);
  auto impatient = waiter(5);
  auto patient = waiter(60);
  _clock.advance(12.25);
  EXPECT_EQ(impatient.get(), "is still loading (12 s so far)");
  EXPECT_EQ(_engine->status(), (EmbeddingStatus{.state = "loading", .loading_s = 12.2}));

  succeed();
  EXPECT_EQ(patient.get(), "local:m");
  EXPECT_EQ(_engine->status(), (EmbeddingStatus{.state = "ready", .backend = "local:m"}));
  EXPECT_EQ(now(-5), "local:m");
  EXPECT_EQ(_engine->backend_name() + std::to_string(_engine->dimension()), "local:m384");
  join();
  EXPECT_THAT(_log.take_lines(), ElementsAre("info Loaded sentence-transformers model: m",
                                             "info Embedding backend ready: local:m (12.2 s)"));

  _engine->close();
  _engine->close();
  EXPECT_EQ(now(), "local:m");
  EXPECT_EQ(_loaders.size(), 1U);
}

TEST_F(LifecycleTest, FailuresAreToldAtOnceAndTriedAgainAfterGrowingWaits) {
  const std::string failure =
      "could not be loaded (RuntimeError: no disk); the next attempt is in ";
  _engine->warm_up_async();
  auto waiting = waiter(60);
  fail_attempt(30);
  EXPECT_EQ(waiting.get(), failure + "30 s");
  _clock.advance(12.25);
  EXPECT_EQ(_engine->status().retry_in_s, 17.8);
  EXPECT_EQ(now(60), failure + "18 s");  // nobody waits through a failure
  _engine->warm_up_async();
  EXPECT_EQ(_loaders.size(), 1U);
  _clock.advance(20, /*wakes=*/false);
  EXPECT_EQ(now(), failure + "0 s");
  EXPECT_EQ(_engine->status().retry_in_s, 0);

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

TEST_F(LifecycleTest, SaysInEveryStateWhyTheBackendIsNotTheBest) {
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

TEST_F(LifecycleTest, CloseEndsEverythingButAnAttemptUnderWay) {
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

TEST_F(LifecycleTest, SurvivesAThreadThatDoesNotStartAndAnErrorOfNoKnownKind) {
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

TEST_F(LifecycleTest, BackendOfTheCallersIsReadyAndLeftAlone) {
  auto backend = std::make_shared<TFIDFEmbeddingBackend>(3);
  EmbeddingEngine engine(kLocal, backend, {.surroundings = &_surroundings});
  engine.close();
  EXPECT_EQ(engine.wait_ready(0), backend);
  EXPECT_EQ(engine.status(), (EmbeddingStatus{.state = "ready", .backend = "tfidf"}));
  EXPECT_EQ(_loaders.size(), 0U);
}

TEST_F(LifecycleTest, NoLockIsHeldWhileLoadingLoggingOrEmbedding) {
  SharedEngines factory([&](EngineConfiguration config) { return make(std::move(config)); });
  const auto engine = factory.acquire(kLocal);
  int calls = 0;
  // On another thread, since the engine's own lock lets the thread that holds it in again.
  const auto call_back = [&] {
    const testing::Waiting waiting("a call of the engine from within its callbacks");
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
  bool told = false;
  int waits = 0;
  const LockGuard guard(mutex);
  const std::jthread teller([&] {
    const LockGuard while_it_waits(mutex);
    told = true;
    changed.notify_all();
  });
  for (; !told; ++waits) {
    system_clock().wait_until(changed, mutex, std::numeric_limits<double>::infinity());
  }
  EXPECT_LT(waits, 10);
}

TEST(StatusTest, RoundsHalfSecondsToEvenAndListsWhatHasAValue) {
  const EmbeddingStatus status = {.state = "loading", .detail = "", .loading_s = 12.5};
  EXPECT_EQ(status.describe(), "is still loading (12 s so far)");
  using Fields = decltype(status.to_dict());
  EXPECT_EQ(status.to_dict(), (Fields{{"state", "loading"}, {"detail", ""}, {"loading_s", 12.5}}));
  const EmbeddingStatus late = {.state = "unavailable", .retry_in_s = 0};
  EXPECT_EQ(late.to_dict(), (Fields{{"state", "unavailable"}, {"retry_in_s", 0.0}}));
}

}  // namespace
}  // namespace tovana::embedding
