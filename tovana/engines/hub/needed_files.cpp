#include "tovana/engines/hub/needed_files.h"

#include <set>
#include <string_view>

#include <nlohmann/json.hpp>

namespace tovana::hub {
namespace {

/// Looks for files and keeps account of those that are missing.
class Account {
 public:
  explicit Account(const ModelFiles& files) : _files(files) {}

  const ModelFiles& files() const { return _files; }
  std::vector<MissingFile> missing() && { return std::move(_missing); }

  bool has(const std::string& name) const { return !_files.fault(name, Need::required); }

  void expect(const std::string& name, Need need) {
    if (std::optional<std::string> fault = _files.fault(name, need)) {
      _missing.push_back({.name = name, .fault = *fault});
    }
  }

  /// Either will do; `second` is expected only of a repository that has no other.
  void expect_one_of(const std::string& first, const std::string& second) {
    if (has(first) || has(second)) return;
    const bool has_second_only = _files.is_listed(second) && !_files.is_listed(first);
    expect(has_second_only ? second : first, Need::required);
  }

 private:
  const ModelFiles& _files;
  std::vector<MissingFile> _missing;
};

/// The shards that an index of weights, which is there, names.
void expect_shards(Account& account, const std::string& prefix, const std::string& index_name) {
  const auto index = account.files().read_json(index_name);
  if (!index || !index->is_object()) return;
  const auto weight_map = index->find("weight_map");
  if (weight_map == index->end() || !weight_map->is_object()) return;
  std::set<std::string> shards;
  for (const nlohmann::json& shard : *weight_map) {
    if (shard.is_string()) shards.insert(shard.get<std::string>());
  }
  for (const std::string& shard : shards) account.expect(prefix + shard, Need::required);
}

/// One file with all tensors, or an index and what it names. Weights that only Python reads count
/// when there are no others to fetch: the model library then says what to do with them.
void expect_weights(Account& account, const std::string& prefix) {
  const std::string single = prefix + "model.safetensors";
  const std::string index = prefix + "model.safetensors.index.json";
  if (account.has(single)) return;
  if (account.has(index)) return expect_shards(account, prefix, index);
  if (account.has(prefix + "pytorch_model.bin") && !account.files().fault(single, Need::settled)) {
    return;
  }
  account.expect_one_of(single, index);
}

struct FileNeed {
  const char* name;
  Need need;
};

void expect_transformer(Account& account, const std::string& prefix) {
  constexpr FileNeed kNeeds[] = {
      {"config.json", Need::required},          {"sentence_bert_config.json", Need::settled},
      {"tokenizer_config.json", Need::settled}, {"special_tokens_map.json", Need::if_listed},
      {"added_tokens.json", Need::if_listed},   {"adapter_config.json", Need::if_listed},
  };
  for (const auto& [name, need] : kNeeds) account.expect(prefix + name, need);
  account.expect_one_of(prefix + "tokenizer.json", prefix + "vocab.txt");
  expect_weights(account, prefix);
}

void expect_module(Account& account, std::string_view type, const std::string& path) {
  const std::string prefix = path.empty() ? path : path + "/";
  const std::string_view kind = type.substr(type.rfind('.') + 1);
  if (kind == "Transformer") return expect_transformer(account, prefix);
  if (kind == "Pooling") return account.expect(prefix + "config.json", Need::settled);
  if (kind == "Dense" || kind == "LayerNorm") {
    account.expect(prefix + "config.json", Need::required);
    expect_weights(account, prefix);
  }
}

}  // namespace

std::vector<MissingFile> missing_files(const ModelFiles& files) {
  const std::string modules_name = "modules.json";
  Account account(files);
  account.expect(modules_name, Need::settled);
  account.expect("config_sentence_transformers.json", Need::if_listed);
  if (!account.has(modules_name)) {
    // Without a list of modules the model is a bare transformer; if there is one, it decides.
    if (!files.is_listed(modules_name)) expect_transformer(account, "");
    return std::move(account).missing();
  }
  const std::optional<nlohmann::json> modules = files.read_json(modules_name);
  if (!modules || !modules->is_array()) return std::move(account).missing();
  for (const nlohmann::json& module : *modules) {
    if (!module.is_object()) continue;
    const auto type = module.find("type");
    const auto path = module.find("path");
    if (type == module.end() || !type->is_string()) continue;
    if (path == module.end() || !path->is_string()) continue;
    expect_module(account, type->get_ref<const std::string&>(),
                  path->get_ref<const std::string&>());
  }
  return std::move(account).missing();
}

}  // namespace tovana::hub
