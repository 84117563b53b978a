#include "sentence_transformers/tokenizer/tokenizer_settings.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "sentence_transformers/tokenizer/models/read_model.h"
#include "sentence_transformers/tokenizer/normalizers/bert_normalizer.h"
#include "sentence_transformers/tokenizer/normalizers/plain_normalizers.h"
#include "sentence_transformers/tokenizer/normalizers/read_normalizers.h"
#include "sentence_transformers/tokenizer/post_processors/read_post_processor.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/read_pre_tokenizers.h"
#include "sentence_transformers/tokenizer/special_tokens.h"
#include "sentence_transformers/tokenizer/tokenizer_classes.h"
#include "sentence_transformers/tokenizer/tokenizer_sources.h"
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

/// Decoders look back from a text's end, and are padded in front of its beginning; that changes no
/// vector, while a model that knows places by numbers would see others.
void refuse_padding_side(const TokenizerSources& sources, TokenizerKind kind) {
  if (kind == TokenizerKind::qwen2 || kind == TokenizerKind::gemma) return;
  constexpr std::string_view kSide = "padding_side";
  const auto side = sources.config ? sources.config->text(kSide) : std::nullopt;
  if (side) {
    if (*side != "right") {
      sources.config->refuse(kSide, "is something else than \"right\", which alone is supported");
    }
  } else if (direction_of(sources.tokenizer, "padding").value_or("Right") != "Right") {
    sources.tokenizer->refuse("padding", "is not on the right, where alone it is supported");
  }
}

void refuse_unsupported_settings(const TokenizerSources& sources, TokenizerKind kind) {
  if (sources.config) refuse_unsupported_settings(*sources.config);
  refuse_padding_side(sources, kind);
  if (sources.tokenizer && sources.tokenizer->text("version").value_or("1.0") != "1.0") {
    sources.tokenizer->refuse("version", "is not \"1.0\", which alone is known");
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

/// A tokenizer as tokenizer.json has it.
void take_as_it_is(const TokenizerSources& sources, const SpecialTokens& tokens,
                   TokenizerSettings& settings) {
  if (!sources.tokenizer) {
    throw files::ModelFilesError(sources.tokenizer_path +
                                 ": missing, and the tokenizer's class needs it; " +
                                 std::string(kSupportedTokenizers));
  }
  const JsonObject& tokenizer = *sources.tokenizer;
  settings.normalizers = read_normalizers(tokenizer);
  settings.pre_tokenizers = read_pre_tokenizers(tokenizer);
  settings.model = read_model(tokenizer);
  settings.ends = read_post_processor(tokenizer);
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

/// What "do_lower_case" of a model asks for.
void lowercase_first(std::vector<NormalizerStep>& normalizers) {
  const auto* const bert = normalizers.size() == 1
                               ? dynamic_cast<const BertNormalizerStep*>(normalizers.front().get())
                               : nullptr;
  if (bert == nullptr) {
    normalizers.insert(normalizers.begin(), std::make_unique<Lowercase>());
    return;
  }
  NormalizerOptions options = bert->options();
  options.lowercase_first = true;
  normalizers.front() = std::make_unique<BertNormalizerStep>(options);
}

}  // namespace

TokenizerSettings read_tokenizer_settings(TokenizerFiles files, const TokenizerOptions& options) {
  const TokenizerSources sources(std::move(files));
  const TokenizerKind kind = sources.kind();
  refuse_unsupported_settings(sources, kind);
  TokenizerSettings settings;
  settings.vocabulary_path = sources.tokenizer ? sources.tokenizer_path : sources.vocab_txt_path;
  settings.keeps_end = read_keeps_end(sources);
  const SpecialTokens tokens(sources, kind);
  if (kind == TokenizerKind::as_it_is) {
    take_as_it_is(sources, tokens, settings);
  } else {
    build_class(sources, kind, tokens, options, settings);
  }
  settings.added_tokens = tokens.read_added();
  if (options.lowercase_first) lowercase_first(settings.normalizers);
  return settings;
}

}  // namespace tovana::sentence_transformers
