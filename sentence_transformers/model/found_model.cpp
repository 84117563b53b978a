#include "sentence_transformers/model/found_model.h"

#include <algorithm>
#include <optional>
#include <string>

#include "sentence_transformers/model/encoder_tensors.h"
#include "sentence_transformers/model/known_members.h"
#include "sentence_transformers/tokenizer/json_object.h"

namespace tovana::sentence_transformers {
namespace {

files::ModelDirectory transformer_folder(const files::ModelDirectory& directory,
                                         const std::vector<ModuleEntry>& list) {
  return list.empty() ? directory : directory.subdirectory(list.front().path);
}

TransformerConfig read_config(const files::ModelDirectory& transformer, bool is_module) {
  if (transformer.open("adapter_config.json", files::ModelDirectory::kLargestConfig)) {
    throw files::ModelFilesError(
        transformer.path_of("adapter_config.json") +
        ": a model with an adapter (PEFT) is not supported; merge the adapter into "
        "the model and save that");
  }
  return read_transformer_config(transformer, is_module);
}

Pooling read_pooling(const files::ModelDirectory& directory, const std::vector<ModuleEntry>& list,
                     const TransformerConfig& config) {
  if (!list.empty()) return Pooling::read(directory.subdirectory(list[1].path), config.hidden);
  return {config.hidden, config.generates ? Pooling::Mode::lasttoken : Pooling::Mode::mean};
}

}  // namespace

FoundModel::FoundModel(const files::ModelDirectory& directory)
    : FoundModel(directory, read_module_list(directory)) {}

FoundModel::FoundModel(const files::ModelDirectory& directory, const std::vector<ModuleEntry>& list)
    : config(read_config(transformer_folder(directory, list), !list.empty())),
      tokenizer(Tokenizer::load(transformer_folder(directory, list), config.tokenizer)),
      checkpoint(open_encoder_checkpoint(transformer_folder(directory, list), config)),
      pooling(read_pooling(directory, list, config)),
      dimension(pooling.dimension()) {
  _check_tokens(transformer_folder(directory, list));
  _find_modules(directory, list);
  if (!list.empty()) _read_settings(directory);  // A plain model's count for nothing.
}

void FoundModel::_check_tokens(const files::ModelDirectory& transformer) const {
  if (tokenizer.largest_id() >= config.vocabulary) {
    throw files::ModelFilesError(transformer.path_of("config.json") + ": \"vocab_size\" is " +
                                 std::to_string(config.vocabulary) +
                                 ", and the tokenizer gives ids up to " +
                                 std::to_string(tokenizer.largest_id()));
  }
  if (config.max_length < tokenizer.special_count()) {
    throw files::ModelFilesError(transformer.path().string() + ": texts may have " +
                                 std::to_string(config.max_length) +
                                 " tokens, and the tokenizer adds " +
                                 std::to_string(tokenizer.special_count()) + " to each");
  }
}

void FoundModel::_find_modules(const files::ModelDirectory& directory,
                               const std::vector<ModuleEntry>& list) {
  for (std::size_t index = 2; index < list.size(); ++index) {
    const files::ModelDirectory folder = directory.subdirectory(list[index].path);
    switch (list[index].kind) {
      case ModuleKind::normalize:
        modules.push_back(find_normalize(folder, dimension));
        break;
      case ModuleKind::dense:
        modules.push_back(find_dense(folder, dimension));
        break;
      case ModuleKind::layer_norm:
        modules.push_back(find_layer_norm(folder, dimension));
        break;
      case ModuleKind::dropout:      // Works in training alone.
      case ModuleKind::transformer:  // Only at the beginning: `read_module_list` has made sure.
      case ModuleKind::pooling:
        continue;
    }
    dimension = modules.back().width;
  }
}

void FoundModel::_read_settings(const files::ModelDirectory& directory) {
  const auto settings = JsonObject::read(directory, "config_sentence_transformers.json");
  if (!settings) return;
  check_members(*settings, kSentenceTransformersMembers);
  prompts = Prompts(*settings);
  dimension = std::min(dimension, settings->count("truncate_dim").value_or(dimension));
}

}  // namespace tovana::sentence_transformers
