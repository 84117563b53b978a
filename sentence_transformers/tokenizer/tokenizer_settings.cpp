#include "sentence_transformers/tokenizer/tokenizer_settings.h"

#include <algorithm>
#include <utility>

#include "sentence_transformers/tokenizer/special_tokens.h"
#include "sentence_transformers/tokenizer/tokenizer_json.h"
#include "sentence_transformers/tokenizer/tokenizer_sources.h"
#include "sentence_transformers/tokenizer/vocabulary.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

/// Where tokenizer.json truncates or pads.
std::optional<std::string_view> direction_of(const std::optional<JsonObject>& tokenizer,
                                             std::string_view key) {
  const auto settings = tokenizer ? tokenizer->object(key) : std::nullopt;
  return settings ? settings->text("direction") : std::nullopt;
}

/// Without a mask, a text's vector would hang on how far its neighbours fill it up.
void refuse_without_mask(const JsonObject& config) {
  constexpr std::string_view kInputs = "model_input_names";
  const auto names = config.array(kInputs);
  if (names && std::ranges::none_of(*names, [&](const auto& name) {
        return config.text_of(name, kInputs) == "attention_mask";
      })) {
    config.refuse(kInputs, "lacks \"attention_mask\", without which texts are not encoded");
  }
}

/// What would change the ids, or the vectors, and is not implemented. Other members that are read
/// nowhere here change neither: the models' own library passes over them as well.
void refuse_unsupported_settings(const JsonObject& config) {
  constexpr std::pair<std::string_view, std::string_view> kOnly[] = {
      {"fast_tokenizer_files", "[\"tokenizer.json\"]"},
      {"model_specific_special_tokens", "{}"},
      {"padding_side", "\"right\""},
      {"split_special_tokens", "false"},
  };
  for (const auto& [name, only] : kOnly) {
    const auto value = config.find(name);
    if (value && simdjson::minify(*value) != only) {
      config.refuse(name,
                    "is something else than " + std::string(only) + ", which alone is supported");
    }
  }
  refuse_without_mask(config);
}

void refuse_unsupported_settings(const TokenizerSources& sources) {
  if (sources.config) refuse_unsupported_settings(*sources.config);
  if (!sources.tokenizer) return;
  const JsonObject& tokenizer = *sources.tokenizer;
  word_piece_of(tokenizer);
  if (tokenizer.text("version").value_or("1.0") != "1.0") {
    tokenizer.refuse("version", "is not \"1.0\", which alone is known");
  }
  const bool has_side = sources.config && sources.config->find("padding_side").has_value();
  if (!has_side && direction_of(sources.tokenizer, "padding").value_or("Right") != "Right") {
    tokenizer.refuse("padding", "is not on the right, where alone it is supported");
  }
}

/// Whether a text that is too long loses its beginning.
bool read_keeps_end(const TokenizerSources& sources) {
  constexpr std::string_view kSide = "truncation_side";
  const std::optional<JsonObject>& config = sources.config;
  if (config) {
    if (const auto side = config->text(kSide)) {
      if (side != "left" && side != "right") {
        config->refuse(kSide, "is neither \"left\" nor \"right\"");
      }
      return side == "left";
    }
  }
  const std::optional<JsonObject>& tokenizer = sources.tokenizer;
  if (!tokenizer) return false;
  const auto direction = direction_of(tokenizer, "truncation");
  if (direction && direction != "Left" && direction != "Right") {
    tokenizer->refuse("truncation", "is neither on the \"Left\" nor on the \"Right\"");
  }
  return direction == "Left";
}

/// A tokenizer of a known class, which has all of the tokens.
void build_anew(const std::optional<JsonObject>& config, const SpecialTokens& tokens,
                const TokenizerOptions& options, TokenizerSettings& settings) {
  const auto flag = [&config](std::string_view key, std::optional<bool> asked, bool otherwise) {
    const auto said = config ? config->flag(key) : std::nullopt;
    return asked.value_or(said.value_or(otherwise));
  };
  NormalizerOptions& normalizer = settings.normalizer;
  normalizer.clean_text = true;
  normalizer.handle_chinese_chars =
      flag("tokenize_chinese_chars", options.tokenize_chinese_chars, true);
  normalizer.lowercase = flag("do_lower_case", options.do_lower_case, true);
  normalizer.strip_accents = flag("strip_accents", options.strip_accents, normalizer.lowercase);
  settings.word_piece.unknown_token = *tokens.find("unk_token");
  settings.before.push_back({*tokens.find("cls_token"), std::nullopt});
  settings.behind.push_back({*tokens.find("sep_token"), std::nullopt});
  settings.pad_token = *tokens.find("pad_token");
}

/// A tokenizer as tokenizer.json has it.
void take_as_it_is(const TokenizerSources& sources, const SpecialTokens& tokens,
                   TokenizerSettings& settings) {
  if (!sources.tokenizer) {
    throw files::ModelFilesError(sources.tokenizer_path +
                                 ": missing, and the tokenizer's class needs it; " +
                                 std::string(kSupportedTokenizers));
  }
  const JsonObject& tokenizer = *sources.tokenizer;
  read_components(tokenizer, settings);
  if (const std::string* const pad = tokens.find("pad_token")) {
    settings.pad_token = *pad;
  } else if (const auto padding = tokenizer.object("padding")) {
    settings.pad_token = padding->text("pad_token").value_or("");
  }
  if (settings.pad_token.empty()) {
    throw files::ModelFilesError(sources.tokenizer_path +
                                 ": there is no \"pad_token\", neither in its \"padding\" nor in "
                                 "tokenizer_config.json");
  }
}

}  // namespace

TokenizerSettings read_tokenizer_settings(TokenizerFiles files, const TokenizerOptions& options) {
  const auto sources = std::make_shared<const TokenizerSources>(std::move(files));
  const TokenizerKind kind = sources->kind();
  refuse_unsupported_settings(*sources);
  TokenizerSettings settings;
  settings.keeps_end = read_keeps_end(*sources);
  const SpecialTokens tokens(*sources, kind);
  if (kind == TokenizerKind::as_it_is) {
    take_as_it_is(*sources, tokens, settings);
  } else {
    build_anew(sources->config, tokens, options, settings);
  }
  settings.vocabulary = read_vocabulary(*sources);
  settings.word_piece.vocabulary_file =
      sources->tokenizer ? sources->tokenizer_path : sources->vocab_txt_path;
  settings.added_tokens = tokens.read_added();
  settings.normalizer.lowercase_first = options.lowercase_first;
  settings.source = sources;
  return settings;
}

}  // namespace tovana::sentence_transformers
