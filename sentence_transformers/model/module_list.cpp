#include "sentence_transformers/model/module_list.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string_view>

#include "sentence_transformers/tokenizer/json_object.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

ModuleKind kind_of(const JsonObject& entry) {
  const std::string_view type = entry.text("type").value_or("");
  if (const std::optional<ModuleKind> kind = files::module_kind(type)) return *kind;
  entry.refuse("the type " + files::in_quotes(type) + " is not supported; supported, of " +
               "sentence_transformers: " + files::known_modules());
}

}  // namespace

std::vector<ModuleEntry> read_module_list(const files::ModelDirectory& directory) {
  constexpr const char* kFile = "modules.json";
  const auto list = JsonObject::read_array(directory, kFile, "module");
  if (!list) return {};

  std::vector<ModuleEntry> modules;
  std::set<std::string> names;
  for (const JsonObject& entry : *list) {
    if (const auto name = entry.find("name");
        name && !names.insert(simdjson::minify(*name)).second) {
      entry.refuse("another module has the \"name\" " + shown(*name) + " already");
    }
    modules.push_back(
        {.kind = kind_of(entry), .path = std::string(entry.text("path").value_or(""))});
  }

  const auto is_first_of_its_kind = [](const ModuleEntry& module) {
    return module.kind == ModuleKind::transformer || module.kind == ModuleKind::pooling;
  };
  if (modules.size() < 2 || modules[0].kind != ModuleKind::transformer ||
      modules[1].kind != ModuleKind::pooling ||
      std::any_of(modules.begin() + 2, modules.end(), is_first_of_its_kind)) {
    throw files::ModelFilesError(
        directory.path_of(kFile) +
        ": supported are a Transformer, then a Pooling, then other modules");
  }
  return modules;
}

}  // namespace tovana::sentence_transformers
