#include "sentence_transformers/tokenizer/tokenizer_sources.h"

#include <utility>

#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

TokenizerKind kind_of_class(const JsonObject& file, std::string_view name) {
  constexpr std::string_view kFast = "Fast";
  std::string_view plain = name;
  if (plain.ends_with(kFast)) plain.remove_suffix(kFast.size());
  if (plain == "BertTokenizer" || plain == "DistilBertTokenizer") return TokenizerKind::bert;
  if (plain == "MPNetTokenizer") return TokenizerKind::mpnet;
  if (plain == "PreTrainedTokenizer" || plain == "TokenizersBackend")
    return TokenizerKind::as_it_is;
  file.refuse("tokenizer_class", "is " + files::in_quotes(name) + ", which is not supported; " +
                                     std::string(kSupportedTokenizers));
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
  for (const auto* const file : {&config, &model_config}) {
    if (const auto name = from(*file, "tokenizer_class")) return kind_of_class(**file, *name);
  }
  const std::string_view model = from(model_config, "model_type").value_or("bert");
  if (model == "mpnet") return TokenizerKind::mpnet;
  if (model == "bert" || model == "distilbert") return TokenizerKind::bert;
  return TokenizerKind::as_it_is;
}

bool TokenizerSources::lists_added_tokens() const {
  return config && config->find("added_tokens_decoder").has_value();
}

}  // namespace tovana::sentence_transformers
