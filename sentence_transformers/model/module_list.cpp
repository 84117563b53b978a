#include "sentence_transformers/model/module_list.h"

#include <algorithm>
#include <filesystem>
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

/// Where a module's files are. All but a Normalize, which asks for its own members by name, would
/// take the encoder's settings for theirs in the encoder's folder.
std::string path_of(const JsonObject& entry, ModuleKind kind, const ModuleEntry* encoder) {
  const auto path = entry.text("path");
  if (!path) entry.refuse("\"path\" is missing");
  const auto folder = [](std::string_view name) {
    return (std::filesystem::path(".") / name / "").lexically_normal();
  };
  if (encoder != nullptr && kind != ModuleKind::normalize &&
      folder(*path) == folder(encoder->path)) {
    entry.refuse("\"path\" is " + files::in_quotes(*path) + ", the folder of the first module");
  }
  return std::string(*path);
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
    const ModuleKind kind = kind_of(entry);
    modules.push_back(
        {.kind = kind, .path = path_of(entry, kind, modules.empty() ? nullptr : &modules.front())});
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
