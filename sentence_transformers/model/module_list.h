#pragma once

#include <string>
#include <vector>

#include "tovana/files/model_directory.h"
#include "tovana/files/module_kinds.h"

namespace tovana::sentence_transformers {

using files::ModuleKind;

/// A module of a model: what it is, and the folder inside the model's where its files are.
struct ModuleEntry {
  ModuleKind kind;
  std::string path;
};

/// The modules that modules.json lists, in the order in which they run: first the Transformer, then
/// a Pooling, then any number of the others. Empty when the file is absent. Nothing that the file
/// names is ever imported or run; a type that is not known here is refused by name, and so are a
/// name that comes twice, of which the models' own library drops a module, and a module in the
/// encoder's folder. Throws ModelFilesError, naming file and fault.
std::vector<ModuleEntry> read_module_list(const files::ModelDirectory& directory);

}  // namespace tovana::sentence_transformers
