#include "tovana/engines/hub/needed_files.h"

#include <set>
#include <string_view>

#include <nlohmann/json.hpp>

namespace tovana::hub {
namespace {

using Missing = std::optional<MissingFile>;

/// The files of one module of a snapshot, which lie in a folder of their own or, for the first
/// module, in the snapshot's.
class ModuleFiles {
 public:
  ModuleFiles(const Snapshot& snapshot, const std::string& path)
      : _snapshot(snapshot), _prefix(path.empty() ? path : path + "/") {}

  Missing check(std::string_view name, Need need) const {
    const std::string full = _prefix + std::string(name);
    if (std::optional<std::string> fault = _snapshot.fault(full, need)) {
      return MissingFile{.name = full, .fault = *fault};
    }
    return std::nullopt;
  }

  bool has(std::string_view name) const { return !check(name, Need::required); }

  /// One file with all tensors, or an index and what it names. Weights that only Python reads count
  /// when there are no others to fetch: the model library then says what to do with them.
  Missing check_weights() const {
    constexpr std::string_view kSingle = "model.safetensors";
    constexpr std::string_view kIndex = "model.safetensors.index.json";
    Missing single = check(kSingle, Need::required);
    if (!single) return std::nullopt;
    if (has(kIndex)) return _check_shards(kIndex);
    if (has("pytorch_model.bin") && !check(kSingle, Need::settled)) return std::nullopt;
    return single;
  }

 private:
  Missing _check_shards(std::string_view index_name) const {
    const auto index = _snapshot.read_json(_prefix + std::string(index_name));
    if (!index || !index->is_object()) return std::nullopt;
    const auto weight_map = index->find("weight_map");
    if (weight_map == index->end() || !weight_map->is_object()) return std::nullopt;
    std::set<std::string> shards;
    for (const nlohmann::json& shard : *weight_map) {
      if (shard.is_string()) shards.insert(shard.get<std::string>());
    }
    for (const std::string& shard : shards) {
      if (Missing missing = check(shard, Need::required)) return missing;
    }
    return std::nullopt;
  }

  const Snapshot& _snapshot;
  std::string _prefix;
};

struct FileNeed {
  std::string_view name;
  Need need;
};

Missing check_transformer(const ModuleFiles& files) {
  constexpr FileNeed kNeeds[] = {
      {"config.json", Need::required},          {"sentence_bert_config.json", Need::settled},
      {"tokenizer_config.json", Need::settled}, {"special_tokens_map.json", Need::if_listed},
      {"added_tokens.json", Need::if_listed},
  };
  for (const auto& [name, need] : kNeeds) {
    if (Missing missing = files.check(name, need)) return missing;
  }
  if (!files.has("vocab.txt")) {
    if (Missing missing = files.check("tokenizer.json", Need::required)) return missing;
  }
  return files.check_weights();
}

Missing check_module(const Snapshot& snapshot, std::string_view type, const std::string& path) {
  const ModuleFiles files(snapshot, path);
  const std::string_view kind = type.substr(type.rfind('.') + 1);
  if (kind == "Transformer") return check_transformer(files);
  if (kind == "Pooling") return files.check("config.json", Need::settled);
  if (kind == "Dense" || kind == "LayerNorm") {
    if (Missing missing = files.check("config.json", Need::required)) return missing;
    return files.check_weights();
  }
  return std::nullopt;
}

}  // namespace

std::optional<MissingFile> missing_file(const Snapshot& snapshot) {
  const ModuleFiles top(snapshot, "");
  if (Missing missing = top.check("modules.json", Need::settled)) return missing;
  if (Missing missing = top.check("config_sentence_transformers.json", Need::if_listed)) {
    return missing;
  }
  if (!top.has("modules.json")) return check_transformer(top);

  const std::optional<nlohmann::json> modules = snapshot.read_json("modules.json");
  if (!modules || !modules->is_array()) return std::nullopt;
  for (const nlohmann::json& module : *modules) {
    if (!module.is_object()) continue;
    const auto type = module.find("type");
    const auto path = module.find("path");
    if (type == module.end() || !type->is_string()) continue;
    if (path == module.end() || !path->is_string()) continue;
    if (Missing missing = check_module(snapshot, type->get_ref<const std::string&>(),
                                       path->get_ref<const std::string&>())) {
      return missing;
    }
  }
  return std::nullopt;
}

}  // namespace tovana::hub
