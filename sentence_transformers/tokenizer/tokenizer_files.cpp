#include "sentence_transformers/tokenizer/tokenizer_files.h"

#include <cstddef>

#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

std::string TokenizerFiles::path_of(std::string_view name) const {
  return folder.empty() ? std::string(name) : folder + "/" + std::string(name);
}

TokenizerFiles TokenizerFiles::read(const files::ModelDirectory& directory) {
  constexpr std::size_t kLargest = files::ModelDirectory::kLargestJson;
  TokenizerFiles files;
  files.folder = directory.path().string();
  files.tokenizer_json = directory.read("tokenizer.json", kLargest);
  files.tokenizer_config_json = directory.read("tokenizer_config.json", kLargest);
  if (!files.tokenizer_json) files.vocab_txt = directory.read("vocab.txt", kLargest);
  files.special_tokens_map_json = directory.read("special_tokens_map.json", kLargest);
  files.added_tokens_json = directory.read("added_tokens.json", kLargest);
  files.config_json = directory.read("config.json", kLargest);
  return files;
}

}  // namespace tovana::sentence_transformers
