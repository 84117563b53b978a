#pragma once

#include <optional>
#include <string>

namespace tovana::sentence_transformers {

class ModelDirectory;

/// The contents of the files that say what a model's tokenizer is; absent ones are absent.
struct TokenizerFiles {
  std::optional<std::string> tokenizer_json;
  std::optional<std::string> tokenizer_config_json;
  std::optional<std::string> vocab_txt;  ///< Only read where there is no tokenizer.json.
  std::optional<std::string> special_tokens_map_json;
  std::optional<std::string> added_tokens_json;
  std::optional<std::string> config_json;

  /// Reads them. Throws what `ModelDirectory::read` throws; a file may have 64 MiB.
  static TokenizerFiles read(const ModelDirectory& directory);
};

}  // namespace tovana::sentence_transformers
