#include "sentence_transformers/tokenizer/tokenizer_json.h"

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "sentence_transformers/tokenizer/tokenizer_sources.h"
#include "sentence_transformers/tokenizer/words.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

JsonObject component(const JsonObject& file, std::string_view key) {
  const auto found = file.object(key);
  if (!found) file.refuse(key, "is missing; " + std::string(kSupportedTokenizers));
  return *found;
}

std::string_view type_of(const JsonObject& object) { return object.text("type").value_or(""); }

/// The member of a sequence of one, or the component itself.
JsonObject only_of(const JsonObject& object, std::string_view members) {
  if (type_of(object) != "Sequence") return object;
  const auto array = object.array(members);
  if (!array || array->size() != 1) {
    object.refuse(members, "is not a sequence of one; " + std::string(kSupportedTokenizers));
  }
  return object.object_of(array->at(0), members);
}

/// Older files do not name the model's type, which is then known by its members.
std::string_view model_type(const JsonObject& model) {
  if (model.find("type")) return type_of(model);
  if (model.find("merges")) return "BPE";
  const auto vocabulary = model.find("vocab");
  return vocabulary && vocabulary->is_array() ? "Unigram" : "WordPiece";
}

void require_type(const JsonObject& file, std::string_view key, std::string_view type,
                  std::initializer_list<std::string_view> supported) {
  if (std::find(supported.begin(), supported.end(), type) == supported.end()) {
    file.refuse(key, "is " + files::in_quotes(type) + ", which is not supported; " +
                         std::string(kSupportedTokenizers));
  }
}

void read_normalizer(const JsonObject& file, TokenizerSettings& settings) {
  const JsonObject object = only_of(component(file, "normalizer"), "normalizers");
  require_type(file, "normalizer", type_of(object), {"BertNormalizer"});
  const auto flag = [&](std::string_view key, bool otherwise) {
    return object.flag(key).value_or(otherwise);
  };
  NormalizerOptions& options = settings.normalizer;
  options.clean_text = flag("clean_text", true);
  options.handle_chinese_chars = flag("handle_chinese_chars", true);
  options.lowercase = flag("lowercase", true);
  options.strip_accents = flag("strip_accents", options.lowercase);
}

void read_model_options(const JsonObject& file, TokenizerSettings& settings) {
  const JsonObject model = component(file, "model");
  WordPieceOptions& options = settings.word_piece;
  options.unknown_token = model.text("unk_token").value_or("[UNK]");
  options.continuing_prefix = model.text("continuing_subword_prefix").value_or("##");
  const auto most = model.id("max_input_chars_per_word");
  options.most_characters = static_cast<std::size_t>(most.value_or(100));
  if (options.most_characters > Words::kMostCharacters) {
    file.refuse("max_input_chars_per_word",
                "is above the limit of " + std::to_string(Words::kMostCharacters));
  }
}

void read_template(const JsonObject& file, const JsonObject& object, TokenizerSettings& settings) {
  constexpr std::string_view kKey = "single";
  constexpr std::size_t kMostTokens = 16;
  const auto pieces = object.array(kKey);
  const auto tokens = object.object("special_tokens");
  if (!pieces || !tokens) file.refuse("post_processor", "is not a complete template");
  bool text_seen = false;
  for (const auto& value : *pieces) {
    const JsonObject piece = object.object_of(value, kKey);
    const auto text = piece.object("Sequence");
    const auto token = piece.object("SpecialToken");
    if (text.has_value() == token.has_value() || (text && text_seen) ||
        (text ? text : token)->id("type_id").value_or(0) != 0) {
      file.refuse(kKey, "is not a template of one text between special tokens of type 0");
    }
    text_seen = text_seen || text;
    if (text) continue;
    const std::string_view name = token->text("id").value_or("");
    const auto definition = tokens->object(name);
    const auto ids = definition ? definition->array("ids") : std::nullopt;
    if (!ids) file.refuse(name, "is in the template but not among its \"special_tokens\"");
    auto& side = text_seen ? settings.behind : settings.before;
    for (const auto& id : *ids) side.push_back({std::string(name), definition->id_of(id, name)});
    if (settings.before.size() + settings.behind.size() > kMostTokens) break;
  }
  if (!text_seen || settings.before.empty() || settings.behind.empty() ||
      settings.before.size() + settings.behind.size() > kMostTokens) {
    file.refuse(kKey, "does not put a few special tokens before and behind the text");
  }
}

void read_post_processor(const JsonObject& file, TokenizerSettings& settings) {
  constexpr std::string_view kKey = "post_processor";
  const JsonObject object = component(file, kKey);
  require_type(file, kKey, type_of(object),
               {"TemplateProcessing", "BertProcessing", "RobertaProcessing"});
  if (type_of(object) == "TemplateProcessing") return read_template(file, object, settings);
  const auto end = [&](std::string_view key) {
    const auto pair = object.array(key);
    if (!pair || pair->size() != 2) file.refuse(key, "is not a token and its id");
    return TokenizerSettings::TemplateToken{std::string(object.text_of(pair->at(0), key)),
                                            object.id_of(pair->at(1), key)};
  };
  settings.before.push_back(end("cls"));
  settings.behind.push_back(end("sep"));
}

}  // namespace

JsonObject word_piece_of(const JsonObject& tokenizer_json) {
  const JsonObject model = component(tokenizer_json, "model");
  require_type(tokenizer_json, "model", model_type(model), {"WordPiece"});
  return model;
}

void read_components(const JsonObject& tokenizer_json, TokenizerSettings& settings) {
  read_normalizer(tokenizer_json, settings);
  require_type(tokenizer_json, "pre_tokenizer",
               type_of(only_of(component(tokenizer_json, "pre_tokenizer"), "pretokenizers")),
               {"BertPreTokenizer"});
  read_model_options(tokenizer_json, settings);
  read_post_processor(tokenizer_json, settings);
}

}  // namespace tovana::sentence_transformers
