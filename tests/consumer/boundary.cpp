// What has to keep its type between a host and the component, also where that is a shared library: errors that
// one throws and the other catches, and classes that it derives. And records have to reach the sink.
#include <atomic>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>

#include "tovana/engines/embedding/embedding.h"
#include "tovana/storage/sqlite/sqlite_database.h"

using namespace tovana::embedding;

namespace {

struct HostError {};

class HostDatabase final : public tovana::storage::Database {
  std::optional<tovana::storage::DatabaseRow> fetchone(const std::string& /*sql*/) override {
    return tovana::storage::PositionalRow{"local:another"};
  }
};

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
  HostDatabase database;
  good &= engine->check_backend_migration(database);  // which is said in the log, by this thread
  SHARED_ENGINES.release(engine);
  return good && records > 0 ? 0 : 1;
}
