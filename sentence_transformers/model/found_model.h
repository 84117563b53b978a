#pragma once

#include <cstdint>
#include <vector>

#include "sentence_transformers/model/checkpoint.h"
#include "sentence_transformers/model/module_list.h"
#include "sentence_transformers/model/pooling.h"
#include "sentence_transformers/model/prompts.h"
#include "sentence_transformers/model/sentence_modules.h"
#include "sentence_transformers/model/transformer_config.h"
#include "sentence_transformers/tokenizer/tokenizer.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

/// A model whose files have been found sound, but for the numbers of its weights: all that is left
/// is to read those.
class FoundModel {
 public:
  /// Throws ModelFilesError, naming file and fault, for a model that is damaged or of a kind that is
  /// not supported here; RuntimeError when the system would not let us read it.
  explicit FoundModel(const files::ModelDirectory& directory);

  TransformerConfig config;
  Tokenizer tokenizer;
  Checkpoint checkpoint;  ///< Of the encoder.
  Pooling pooling;
  std::vector<FoundModule> modules;
  std::int64_t
      dimension;  ///< The floats of a vector: those that come out of the last module, or fewer.
  Prompts prompts;

 private:
  FoundModel(const files::ModelDirectory& directory, const std::vector<ModuleEntry>& list);

  void _check_tokens(const files::ModelDirectory& transformer) const;
  void _find_modules(const files::ModelDirectory& directory, const std::vector<ModuleEntry>& list);
  void _read_settings(const files::ModelDirectory& directory);
};

}  // namespace tovana::sentence_transformers
