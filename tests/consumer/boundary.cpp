// What has to keep its type between a host and the component, also where that is a shared library: errors that
// one throws and the other catches. And records have to reach the host's sink.
#include <atomic>
#include <cstdio>
#include <stdexcept>

#include "tovana/engines/embedding/embedding.h"
#include "tovana/storage/sqlite/sqlite_database.h"

using namespace tovana::embedding;

namespace {

struct HostError {};

template <class Expected, class Attempt>
bool throws(const char* what, const Attempt& attempt) {
  try {
    attempt();
  } catch (const Expected&) {
    return true;
  } catch (...) {
  }
  std::printf("not caught as what it is: %s\n", what);
  return false;
}

}  // namespace

int main() {
  static std::atomic<int> records = 0;
  tovana::set_log_sink([](const tovana::LogRecord&) { ++records; });
  const auto engine = SHARED_ENGINES.acquire(EngineConfiguration{{"backend", "tfidf"}});
  const auto open_nothing = [] { tovana::storage::SqliteDatabase("/no/such/file"); };
  bool good = throws<tovana::storage::DatabaseError>("DatabaseError", open_nothing);
  good &= throws<std::runtime_error>("DatabaseError, a std::runtime_error", open_nothing);
  good &= throws<std::invalid_argument>("ValueError", [] { SHARED_ENGINES.release(nullptr); });
  good &= throws<tovana::Error>("ValueError, an Error", [] { SHARED_ENGINES.release(nullptr); });
  good &= throws<EmbeddingStopped>(
      "EmbeddingStopped", [&] { engine->embed({"a text"}, {.should_stop = [] { return true; }}); });
  good &= throws<HostError>("the host's own error", [&] {
    engine->embed({"a text"}, {.should_stop = []() -> bool { throw HostError(); }});
  });
  SHARED_ENGINES.release(engine);
  return good && records > 0 ? 0 : 1;
}
