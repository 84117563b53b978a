#include "tovana/engines/hub/needed_files.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <string_view>

#include <nlohmann/json.hpp>

#include "tovana/engines/hub/weights_extent.h"
#include "tovana/files/architectures.h"
#include "tovana/files/model_directory.h"
#include "tovana/files/module_kinds.h"

namespace tovana::hub {
namespace {

using files::in_quotes;
using files::ModelFilesError;
using files::ModuleKind;

// More than any model has, and few enough to be asked for one by one, each in folders of its own.
constexpr std::size_t kMostModules = 64;
constexpr std::size_t kMostFiles = 2000;
constexpr std::size_t kMostFolders = 200;
constexpr std::size_t kDeepestFolder = 16;
/// What file systems take for one part of a path.
constexpr std::size_t kLongestPart = 255;

void check_path(std::string_view name) {
  std::size_t parts = 1;
  for (std::size_t start = 0; start <= name.size(); ++parts) {
    const std::size_t end = std::min(name.find('/', start), name.size());
    if (end - start > kLongestPart || parts > kDeepestFolder) {
      throw ModelFilesError("the model names the file " + in_quotes(name) +
                            ", whose path is too long");
    }
    start = end + 1;
  }
}

/// Looks for files and keeps account of them.
class Account {
 public:
  explicit Account(const AvailableFiles& files) : _files(files) {}

  const AvailableFiles& files() const { return _files; }
  NeededFiles needed() && { return std::move(_needed); }

  bool has(const std::string& name) const { return !_files.fault(name, Need::required); }

  void expect(const std::string& name, Need need) {
    check_path(name);
    _count(name);
    if (std::optional<std::string> fault = _files.fault(name, need)) {
      _needed.missing.push_back({.name = name, .fault = *fault});
    } else if (has(name)) {
      _needed.present.push_back(name);
    }
  }

  /// Either will do; `second` is expected only of a repository that has no other.
  void expect_one_of(const std::string& first, const std::string& second) {
    const bool has_second_only =
        !has(first) && (has(second) || (_files.is_listed(second) && !_files.is_listed(first)));
    expect(has_second_only ? second : first, Need::required);
  }

  [[noreturn]] void refuse(const std::string& name, const std::string& fault) const {
    throw ModelFilesError(_files.shown(name) + ": " + fault);
  }

 private:
  /// Of all that the model names, whether it is there or not.
  void _count(const std::string& name) {
    if (!_names.insert(name).second) return;
    for (std::size_t end = name.find('/'); end != std::string::npos;
         end = name.find('/', end + 1)) {
      _folders.insert(name.substr(0, end));
    }
    if (_names.size() > kMostFiles || _folders.size() > kMostFolders) {
      throw ModelFilesError("the model needs more than " + std::to_string(kMostFiles) +
                            " files or " + std::to_string(kMostFolders) + " folders");
    }
  }

  const AvailableFiles& _files;
  std::set<std::string> _names;
  std::set<std::string> _folders;
  NeededFiles _needed;
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

/// One file with all tensors, or an index and what it names.
void expect_weights(Account& account, const std::string& prefix) {
  const std::string single = prefix + "model.safetensors";
  const std::string index = prefix + "model.safetensors.index.json";
  const std::string pickled = prefix + "pytorch_model.bin";
  if (!account.has(single) && !account.has(index) && account.has(pickled) &&
      !account.files().fault(single, Need::settled)) {
    account.refuse(pickled,
                   "weights in pickle format are not read, since they may run code: convert the "
                   "model to safetensors by loading it in Python with sentence-transformers and "
                   "saving it again with save_pretrained");
  }
  account.expect_one_of(single, index);
  if (!account.has(single) && account.has(index)) expect_shards(account, prefix, index);
}

struct FileNeed {
  const char* name;
  Need need;
};

/// Of an encoder that does not load nothing more is asked for.
void check_architecture(const Account& account, const std::string& config_name) {
  const std::optional<nlohmann::json> config = account.files().read_json(config_name);
  if (!config) return;
  const auto type = config->is_object() ? config->find("model_type") : config->end();
  if (type == config->end() || !type->is_string()) {
    account.refuse(config_name, "has no \"model_type\", which says what encoder the model has");
  }
  const auto& name = type->get_ref<const std::string&>();
  if (files::is_known_architecture(name)) return;
  account.refuse(config_name, files::unknown_architecture(name));
}

void expect_transformer(Account& account, const std::string& prefix) {
  const std::string config_name = prefix + "config.json";
  if (!account.has(config_name)) return account.expect(config_name, Need::required);
  check_architecture(account, config_name);
  const std::string adapter = prefix + "adapter_config.json";
  if (account.has(adapter) || account.files().is_listed(adapter)) {
    account.refuse(adapter,
                   "a model with an adapter (PEFT) is not supported; merge the adapter into the "
                   "model and save that");
  }
  constexpr FileNeed kNeeds[] = {
      {"config.json", Need::required},          {"sentence_bert_config.json", Need::settled},
      {"tokenizer_config.json", Need::settled}, {"special_tokens_map.json", Need::if_listed},
      {"added_tokens.json", Need::if_listed},   {"chat_template.jinja", Need::if_listed},
  };
  for (const auto& [name, need] : kNeeds) account.expect(prefix + name, need);
  account.expect_one_of(prefix + "tokenizer.json", prefix + "vocab.txt");
  expect_weights(account, prefix);
}

/// A module's path as it stands before a file's name: "./1_Pooling/" is "1_Pooling/", and the
/// model's own folder nothing.
std::string file_prefix(const std::string& path) {
  if (path.empty()) return {};
  if (!files::is_contained_name(path)) return path + "/";  // refused with the first file in it
  const std::string normal = (std::filesystem::path(path) / "").lexically_normal().string();
  return normal == "./" || normal == "." ? std::string() : normal;
}

void expect_module(Account& account, ModuleKind kind, const std::string& prefix) {
  if (kind == ModuleKind::transformer) return expect_transformer(account, prefix);
  if (kind == ModuleKind::pooling) return account.expect(prefix + "config.json", Need::required);
  if (kind == ModuleKind::dense || kind == ModuleKind::layer_norm) {
    account.expect(prefix + "config.json", Need::required);
    expect_weights(account, prefix);
  }
}

struct Module {
  ModuleKind kind;
  std::string prefix;
};

std::vector<Module> module_list(const Account& account, const std::string& name) {
  const nlohmann::json entries = account.files().read_json(name).value_or(nullptr);
  if (!entries.is_array() || entries.empty()) account.refuse(name, "lists no modules");
  if (entries.size() > kMostModules) {
    account.refuse(name, "lists more than " + std::to_string(kMostModules) + " modules");
  }
  std::vector<Module> modules;
  for (const nlohmann::json& entry : entries) {
    const auto type = entry.is_object() ? entry.find("type") : entry.end();
    const auto path = entry.is_object() ? entry.find("path") : entry.end();
    if (type == entry.end() || !type->is_string() || path == entry.end() || !path->is_string()) {
      account.refuse(name, "lists a module without a type and a path");
    }
    const auto& type_name = type->get_ref<const std::string&>();
    const std::optional<ModuleKind> kind = files::module_kind(type_name);
    if (!kind) {
      account.refuse(name, "the type " + in_quotes(type_name) +
                               " is not supported; supported, of sentence_transformers: " +
                               files::known_modules());
    }
    modules.push_back({*kind, file_prefix(path->get_ref<const std::string&>())});
  }
  const auto is_first_of_its_kind = [](const Module& module) {
    return module.kind == ModuleKind::transformer || module.kind == ModuleKind::pooling;
  };
  if (modules.size() < 2 || modules[0].kind != ModuleKind::transformer ||
      modules[1].kind != ModuleKind::pooling ||
      std::any_of(modules.begin() + 2, modules.end(), is_first_of_its_kind)) {
    account.refuse(name, "supported are a Transformer, then a Pooling, then other modules");
  }
  return modules;
}

}  // namespace

std::string AvailableFiles::shown(std::string_view name) const {
  return _model_directory().path_of(name);
}

std::optional<files::FileHandle> AvailableFiles::open(std::string_view name) const {
  return _model_directory().open(_place(name), files::ModelDirectory::kLargestFile);
}

std::optional<nlohmann::json> AvailableFiles::read_json(std::string_view name) const {
  return _model_directory().read_json(_place(name), files::ModelDirectory::kLargestJson);
}

NeededFiles needed_files(const AvailableFiles& files) {
  const std::string modules_name = "modules.json";
  Account account(files);
  account.expect(modules_name, Need::settled);
  account.expect("config_sentence_transformers.json", Need::if_listed);
  if (!account.has(modules_name)) {
    // Without a list of modules the model is a bare transformer; if there is one, it decides.
    if (!files.is_listed(modules_name)) {
      expect_transformer(account, "");
    } else {  // almost always there, and needed next
      account.expect("config.json", Need::if_listed);
    }
    return std::move(account).needed();
  }
  for (const Module& module : module_list(account, modules_name)) {
    expect_module(account, module.kind, module.prefix);
  }
  return std::move(account).needed();
}

void check_contents(const AvailableFiles& model, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    const std::optional<files::FileHandle> file = model.open(name);
    if (!file) throw ModelFilesError(model.shown(name) + ": is missing");
    if (name.ends_with(".safetensors")) check_extent_of_weights(*file);
    if (!name.ends_with(".json")) continue;
    const nlohmann::json content = model.read_json(name).value_or(nullptr);
    if (name.ends_with("tokenizer.json") && !(content.is_object() && content.contains("model"))) {
      throw ModelFilesError(model.shown(name) + ": is no tokenizer: it has no \"model\"");
    }
  }
}

}  // namespace tovana::hub
