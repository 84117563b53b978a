#include "sentence_transformers/tokenizer/tokenizer_sources.h"

#include <utility>

#include "sentence_transformers/tokenizer/named_values.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

TokenizerKind kind_of_class(const JsonObject& file, std::string_view name) {
  constexpr std::pair<std::string_view, TokenizerKind> kClasses[] = {
      {"BertTokenizer", TokenizerKind::bert},
      {"CamembertTokenizer", TokenizerKind::camembert},
      {"DistilBertTokenizer", TokenizerKind::bert},
      {"ElectraTokenizer", TokenizerKind::bert},
      {"GemmaTokenizer", TokenizerKind::gemma},
      {"MPNetTokenizer", TokenizerKind::mpnet},
      {"PreTrainedTokenizer", TokenizerKind::as_it_is},
      {"Qwen2Tokenizer", TokenizerKind::qwen2},
      {"RobertaTokenizer", TokenizerKind::roberta},
      {"TokenizersBackend", TokenizerKind::as_it_is},
      {"XLMRobertaTokenizer", TokenizerKind::xlm_roberta},
  };
  constexpr std::string_view kFast = "Fast";
  std::string_view plain = name;
  if (plain.ends_with(kFast)) plain.remove_suffix(kFast.size());
  if (const auto kind = find_named(kClasses, plain)) return *kind;
  file.refuse("tokenizer_class", "is " + files::in_quotes(name) + ", which is not supported; " +
                                     std::string(kSupportedTokenizers));
}

TokenizerKind kind_of_model(std::string_view type) {
  constexpr std::pair<std::string_view, TokenizerKind> kModels[] = {
      {"bert", TokenizerKind::bert},
      {"camembert", TokenizerKind::camembert},
      {"distilbert", TokenizerKind::bert},
      {"electra", TokenizerKind::bert},
      {"gemma3_text", TokenizerKind::gemma},
      {"gte", TokenizerKind::xlm_roberta},
      {"mpnet", TokenizerKind::mpnet},
      {"nomic_bert", TokenizerKind::bert},
      {"qwen3", TokenizerKind::qwen2},
      {"roberta", TokenizerKind::roberta},
      {"xlm-roberta", TokenizerKind::xlm_roberta},
  };
  return find_named(kModels, type).value_or(TokenizerKind::as_it_is);
}

}  // namespace

TokenizerSources::TokenizerSources(TokenizerFiles files)
    : vocab_txt(std::move(files.vocab_txt)),
      tokenizer_path(files.path_of("tokenizer.json")),
      vocab_txt_path(files.path_of("vocab.txt")) {
  const auto parse = [&files](std::optional<std::string>& text, std::string_view name) {
    return text ? std::optional<JsonObject>(std::in_place, files.path_of(name), std::move(*text))
                : std::nullopt;
  };
  tokenizer = parse(files.tokenizer_json, "tokenizer.json");
  config = parse(files.tokenizer_config_json, "tokenizer_config.json");
  special_map = parse(files.special_tokens_map_json, "special_tokens_map.json");
  added = parse(files.added_tokens_json, "added_tokens.json");
  model_config = parse(files.config_json, "config.json");
}

TokenizerKind TokenizerSources::kind() const {
  const auto from = [](const std::optional<JsonObject>& file, std::string_view key) {
    return file ? file->text(key) : std::nullopt;
  };
  const std::string_view model = from(model_config, "model_type").value_or("bert");
  // Many of these name a class that their tokenizer is not.
  if (model == "modernbert") return TokenizerKind::as_it_is;
  for (const auto* const file : {&config, &model_config}) {
    if (const auto name = from(*file, "tokenizer_class")) return kind_of_class(**file, *name);
  }
  return kind_of_model(model);
}

bool TokenizerSources::lists_added_tokens() const {
  return config && config->find("added_tokens_decoder").has_value();
}

}  // namespace tovana::sentence_transformers
