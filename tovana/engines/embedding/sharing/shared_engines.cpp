#include "tovana/engines/embedding/sharing/shared_engines.h"

#include <cstddef>

#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {
namespace {

/// A value as a literal: the text 384 and the number print apart.
struct Printed {
  std::string operator()(std::nullptr_t) const { return "None"; }
  std::string operator()(std::int64_t number) const { return std::to_string(number); }
  std::string operator()(const std::string& text) const { return "'" + text + "'"; }
};

std::shared_ptr<EmbeddingEngine> make_engine(EngineConfiguration config) {
  return std::make_shared<EmbeddingEngine>(std::move(config));
}

}  // namespace

SharedEngines& SHARED_ENGINES = *new SharedEngines;

SharedEngines::SharedEngines(Make make) : _make(make ? std::move(make) : make_engine) {}

SharedEngines::Key SharedEngines::_key(const EngineConfiguration& config) {
  Key key;
  key.reserve(config.size());
  for (const auto& [name, value] : config) key.emplace_back(name, std::visit(Printed{}, value));
  return key;
}

std::shared_ptr<EmbeddingEngine> SharedEngines::acquire(const EngineConfiguration& config) {
  Key key = _key(config);
  const LockGuard guard(_lock);
  auto found = _engines.find(key);
  if (found == _engines.end()) {
    std::shared_ptr<EmbeddingEngine> engine = _make(config);
    found = _engines
                .emplace(std::move(key),
                         Entry{.engine = std::move(engine), .holders = 0, .number = _made++})
                .first;
  }
  ++found->second.holders;
  return found->second.engine;
}

void SharedEngines::release(const std::shared_ptr<EmbeddingEngine>& engine) {
  {
    const LockGuard guard(_lock);
    // A maker may give one engine to two configurations; the one that was made first counts.
    auto found = _engines.end();
    for (auto entry = _engines.begin(); entry != _engines.end(); ++entry) {
      if (entry->second.engine != engine) continue;
      if (found == _engines.end() || entry->second.number < found->second.number) found = entry;
    }
    if (found == _engines.end()) {
      throw ValueError("this embedding engine was not handed out by the factory");
    }
    if (--found->second.holders > 0) return;
    _engines.erase(found);
  }
  engine->close();
}

}  // namespace tovana::embedding
