#include "sentence_transformers/weights/weights.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::string_view kSingle = "model.safetensors";
constexpr std::string_view kIndex = "model.safetensors.index.json";

std::shared_ptr<const SafetensorsFile> open_weights(const files::ModelDirectory& directory,
                                                    files::FileHandle file) {
  // A blob of a hub cache is never changed in place, which is what mapping asks for.
  return std::make_shared<const SafetensorsFile>(
      std::move(file), directory.is_snapshot() ? FileAccess::map : FileAccess::read);
}

[[noreturn]] void refuse_without_safetensors(const files::ModelDirectory& directory) {
  for (const std::string_view name : {"pytorch_model.bin", "pytorch_model.bin.index.json"}) {
    std::optional<files::FileHandle> file =
        directory.open(name, files::ModelDirectory::kLargestFile);
    if (!file) continue;
    throw files::ModelFilesError(
        file->path() +
        ": weights in pickle format are not read, since they may run code: convert "
        "the model to safetensors by loading it in Python with sentence-transformers "
        "and saving it again with save_pretrained");
  }
  throw files::ModelFilesError(directory.path_of(kSingle) + ": the model has no weights");
}

/// Which tensors lie in which file, by the file's name.
std::map<std::string, std::set<std::string>> tensors_by_shard(
    const files::ModelDirectory& directory, const nlohmann::json& index) {
  const std::string path = directory.path_of(kIndex);
  const auto map = index.is_object() ? index.find("weight_map") : index.end();
  if (map == index.end() || !map->is_object()) {
    throw files::ModelFilesError(path + ": has no object \"weight_map\"");
  }
  std::map<std::string, std::set<std::string>> shards;
  for (const auto& [tensor, shard] : map->items()) {
    if (!shard.is_string()) {
      throw files::ModelFilesError(path + ": the file of tensor " + files::in_quotes(tensor) +
                                   " is not a string");
    }
    shards[shard.get<std::string>()].insert(tensor);
  }
  return shards;
}

}  // namespace

Weights::Weights(std::string path, std::vector<std::shared_ptr<const SafetensorsFile>> files,
                 Map tensors) noexcept
    : _path(std::move(path)), _files(std::move(files)), _tensors(std::move(tensors)) {}

Weights Weights::open(const files::ModelDirectory& directory) {
  Map tensors;
  if (std::optional<files::FileHandle> whole =
          directory.open(kSingle, files::ModelDirectory::kLargestFile)) {
    const auto file = open_weights(directory, *std::move(whole));
    for (const auto& [name, entry] : file->tensors()) {
      tensors.emplace_hint(tensors.end(), name, StoredTensor{.entry = &entry, .file = file});
    }
    return Weights(file->path(), {file}, std::move(tensors));
  }

  const std::optional<nlohmann::json> index =
      directory.read_json(kIndex, files::ModelDirectory::kLargestJson);
  if (!index) refuse_without_safetensors(directory);
  std::vector<std::shared_ptr<const SafetensorsFile>> files;
  for (const auto& [shard, names] : tensors_by_shard(directory, *index)) {
    std::optional<files::FileHandle> opened =
        directory.open(shard, files::ModelDirectory::kLargestFile);
    if (!opened) {
      throw files::ModelFilesError(directory.path_of(shard) + ": not there, though " +
                                   std::string(kIndex) + " names it");
    }
    const auto& file = files.emplace_back(open_weights(directory, *std::move(opened)));
    for (const std::string& name : names) {
      const auto found = file->tensors().find(name);
      if (found == file->tensors().end()) {
        throw files::ModelFilesError(file->path() + ": has no tensor " + files::in_quotes(name) +
                                     ", though " + std::string(kIndex) + " says so");
      }
      tensors.emplace(name, StoredTensor{.entry = &found->second, .file = file});
    }
  }
  return Weights(directory.path_of(kIndex), std::move(files), std::move(tensors));
}

void Weights::check_unchanged() const {
  for (const auto& file : _files) file->check_unchanged();
}

}  // namespace tovana::sentence_transformers
