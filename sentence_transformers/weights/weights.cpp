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

SafetensorsFile open_weights(const files::ModelDirectory& directory,
                             const files::FileHandle& file) {
  // A blob of a hub cache is never changed in place, which is what mapping asks for.
  return SafetensorsFile::open(
      file, directory.is_snapshot() ? files::FileAccess::map : files::FileAccess::read);
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

Weights::Weights(std::vector<SafetensorsFile> files, TensorMap tensors) noexcept
    : _files(std::move(files)), _tensors(std::move(tensors)) {}

Weights Weights::load(const files::ModelDirectory& directory) {
  std::vector<SafetensorsFile> files;
  if (const std::optional<files::FileHandle> file =
          directory.open(kSingle, files::ModelDirectory::kLargestFile)) {
    files.push_back(open_weights(directory, *file));
    TensorMap tensors = files.front().tensors();
    return Weights(std::move(files), std::move(tensors));
  }

  const std::optional<nlohmann::json> index =
      directory.read_json(kIndex, files::ModelDirectory::kLargestJson);
  if (!index) refuse_without_safetensors(directory);
  TensorMap tensors;
  for (const auto& [shard, names] : tensors_by_shard(directory, *index)) {
    const std::optional<files::FileHandle> file =
        directory.open(shard, files::ModelDirectory::kLargestFile);
    if (!file) {
      throw files::ModelFilesError(directory.path_of(shard) + ": not there, though " +
                                   std::string(kIndex) + " names it");
    }
    files.push_back(open_weights(directory, *file));
    for (const std::string& name : names) {
      const TensorView* const tensor = files.back().find(name);
      if (tensor == nullptr) {
        throw files::ModelFilesError(file->path() + ": has no tensor " + files::in_quotes(name) +
                                     ", though " + std::string(kIndex) + " says so");
      }
      tensors.emplace(name, *tensor);
    }
  }
  return Weights(std::move(files), std::move(tensors));
}

void Weights::discard(const TensorView& tensor) const noexcept {
  for (const SafetensorsFile& file : _files) file.discard(tensor);
}

const TensorView* Weights::find(std::string_view name) const noexcept {
  const auto found = _tensors.find(name);
  return found == _tensors.end() ? nullptr : &found->second;
}

}  // namespace tovana::sentence_transformers
