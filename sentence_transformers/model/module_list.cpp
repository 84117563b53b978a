#include "sentence_transformers/model/module_list.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string_view>

#include <nlohmann/json.hpp>

#include "sentence_transformers/model/settings.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

ModuleKind kind_of(const Settings& entry) {
  const std::string type = entry.text("type").value_or("");
  if (const std::optional<ModuleKind> kind = files::module_kind(type)) return *kind;
  entry.refuse("the type " + files::in_quotes(type) + " is not supported; supported, of " +
               "sentence_transformers: " + files::known_modules());
}

}  // namespace

std::vector<ModuleEntry> read_module_list(const files::ModelDirectory& directory) {
  constexpr const char* kFile = "modules.json";
  const std::optional<nlohmann::json> list = directory.read_json(kFile);
  if (!list) return {};
  const std::string file = directory.path_of(kFile);
  if (!list->is_array()) throw files::ModelFilesError(file + ": does not hold an array of modules");

  std::vector<ModuleEntry> modules;
  std::set<nlohmann::json> names;
  for (const nlohmann::json& module : *list) {
    const Settings entry(module, file + ": module " + std::to_string(modules.size()));
    if (const nlohmann::json* const name = entry.find("name");
        name != nullptr && !names.insert(*name).second) {
      entry.refuse("another module has the \"name\" " + shown(*name) + " already");
    }
    modules.push_back({.kind = kind_of(entry), .path = entry.text("path").value_or("")});
  }

  const auto is_first_of_its_kind = [](const ModuleEntry& module) {
    return module.kind == ModuleKind::transformer || module.kind == ModuleKind::pooling;
  };
  if (modules.size() < 2 || modules[0].kind != ModuleKind::transformer ||
      modules[1].kind != ModuleKind::pooling ||
      std::any_of(modules.begin() + 2, modules.end(), is_first_of_its_kind)) {
    throw files::ModelFilesError(
        file + ": supported are a Transformer, then a Pooling, then other modules");
  }
  return modules;
}

}  // namespace tovana::sentence_transformers
