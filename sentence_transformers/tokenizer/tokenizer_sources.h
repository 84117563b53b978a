#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sentence_transformers/tokenizer/json_object.h"
#include "sentence_transformers/tokenizer/tokenizer_files.h"

namespace tovana::sentence_transformers {

/// How a model's files are read together; see `TokenizerSettings`.
enum class TokenizerKind { bert, mpnet, roberta, xlm_roberta, camembert, qwen2, gemma, as_it_is };

/// For messages.
inline constexpr std::string_view kSupportedTokenizers =
    "supported are BertTokenizer, DistilBertTokenizer, ElectraTokenizer, MPNetTokenizer, "
    "RobertaTokenizer, XLMRobertaTokenizer, CamembertTokenizer, Qwen2Tokenizer, GemmaTokenizer and "
    "PreTrainedTokenizerFast";

/// A model's files, parsed; what is read from them may refer to their text.
struct TokenizerSources {
  /// Throws ModelFilesError, naming the file, for one that is not a JSON object.
  explicit TokenizerSources(TokenizerFiles files);

  /// Throws ModelFilesError for a class of tokenizers that is not supported.
  TokenizerKind kind() const;

  /// Whether tokenizer_config.json lists the added tokens, and so the older files do not count.
  bool lists_added_tokens() const;

  std::optional<JsonObject> tokenizer;     ///< tokenizer.json
  std::optional<JsonObject> config;        ///< tokenizer_config.json
  std::optional<JsonObject> special_map;   ///< special_tokens_map.json
  std::optional<JsonObject> added;         ///< added_tokens.json
  std::optional<JsonObject> model_config;  ///< config.json
  std::optional<std::string> vocab_txt;
  std::string tokenizer_path;
  std::string vocab_txt_path;
};

}  // namespace tovana::sentence_transformers
