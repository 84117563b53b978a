#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tovana/base/export.h"
#include "tovana/base/mutex.h"
#include "tovana/engines/embedding/engine/configuration.h"
#include "tovana/engines/embedding/engine/engine.h"

namespace tovana::embedding {

/// Hands out one engine for each configuration, shared by all who ask with an equal one, so that
/// they share its model. Every `acquire` is one hold and is matched by one `release`; the last one
/// closes the engine. Holders do not close it themselves: it would be closed for all of them, and
/// for whoever asks until the last has let go of it.
///
/// Threads: any operation on any thread at any time. The lock is held while an engine is made,
/// never while one is closed.
class TOVANA_API SharedEngines {
 public:
  using Make = std::function<std::shared_ptr<EmbeddingEngine>(EngineConfiguration config)>;

  /// The pairs of a configuration in the order of their names, values printed as literals: 'text',
  /// 384, None.
  using Key = std::vector<std::pair<std::string, std::string>>;

  /// `make` makes the engine of a configuration that has none; it has to be quick, since everybody
  /// else waits, and may not call this factory. By default an `EmbeddingEngine` with nothing but
  /// the configuration.
  explicit SharedEngines(Make make = nullptr);
  SharedEngines(const SharedEngines&) = delete;
  SharedEngines& operator=(const SharedEngines&) = delete;

  /// The engine of a configuration, by default the empty one, made if there is none. It neither
  /// starts to load nor is waited for. Throws what `make` throws; nothing is kept then.
  std::shared_ptr<EmbeddingEngine> acquire(const EngineConfiguration& config = {})
      TOVANA_EXCLUDES(_lock);

  /// Lets go of one hold. The last one takes the engine from the table and then closes it: a load
  /// ends and its waiters are woken, a ready engine goes on serving whoever still has it. The next
  /// `acquire` of its configuration makes another. Throws ValueError for an engine that this
  /// factory did not hand out, or that has no hold left, and what the engine's `close` throws.
  void release(const std::shared_ptr<EmbeddingEngine>& engine) TOVANA_EXCLUDES(_lock);

  static Key _key(const EngineConfiguration& config);

 private:
  struct Entry {
    std::shared_ptr<EmbeddingEngine> engine;
    std::int64_t holders = 0;
    std::uint64_t number = 0;  ///< Counts up in the order in which the entries were made.
  };

  const Make _make;
  Mutex _lock;
  std::map<Key, Entry> _engines TOVANA_GUARDED_BY(_lock);
  std::uint64_t _made TOVANA_GUARDED_BY(_lock) = 0;
};

/// The process's factory. Never destroyed, and neither are engines that are still held when the
/// process ends: threads may be using them.
extern TOVANA_API SharedEngines& SHARED_ENGINES;

}  // namespace tovana::embedding
