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

JsonFile::Object component(const JsonFile& file, std::string_view key) {
  const auto found = file.find_object(file.root(), key);
  if (!found) file.fail(key, "is missing; " + std::string(kSupportedTokenizers));
  return *found;
}

std::string_view type_of(const JsonFile& file, const JsonFile::Object& object) {
  return file.find_string(object, "type").value_or("");
}

/// The member of a sequence of one, or the component itself.
JsonFile::Object only_of(const JsonFile& file, const JsonFile::Object& object,
                         std::string_view members) {
  if (file.find_string(object, "type").value_or("") != "Sequence") return object;
  const auto array = file.find_array(object, members);
  if (!array || array->size() != 1) {
    file.fail(members, "is not a sequence of one; " + std::string(kSupportedTokenizers));
  }
  return file.object(array->at(0), members);
}

/// Older files do not name the model's type, which is then known by its members.
std::string_view model_type(const JsonFile& file, const JsonFile::Object& model) {
  if (file.find(model, "type")) return type_of(file, model);
  if (file.find(model, "merges")) return "BPE";
  const auto vocabulary = file.find(model, "vocab");
  return vocabulary && vocabulary->is_array() ? "Unigram" : "WordPiece";
}

void require_type(const JsonFile& file, std::string_view key, std::string_view type,
                  std::initializer_list<std::string_view> supported) {
  if (std::find(supported.begin(), supported.end(), type) == supported.end()) {
    file.fail(key, "is " + files::in_quotes(type) + ", which is not supported; " +
                       std::string(kSupportedTokenizers));
  }
}

void read_normalizer(const JsonFile& file, TokenizerSettings& settings) {
  const JsonFile::Object object = only_of(file, component(file, "normalizer"), "normalizers");
  require_type(file, "normalizer", type_of(file, object), {"BertNormalizer"});
  const auto flag = [&](std::string_view key, bool otherwise) {
    return file.find_bool(object, key).value_or(otherwise);
  };
  NormalizerOptions& options = settings.normalizer;
  options.clean_text = flag("clean_text", true);
  options.handle_chinese_chars = flag("handle_chinese_chars", true);
  options.lowercase = flag("lowercase", true);
  options.strip_accents = flag("strip_accents", options.lowercase);
}

void read_model_options(const JsonFile& file, TokenizerSettings& settings) {
  const JsonFile::Object model = component(file, "model");
  WordPieceOptions& options = settings.word_piece;
  options.unknown_token = file.find_string(model, "unk_token").value_or("[UNK]");
  options.continuing_prefix = file.find_string(model, "continuing_subword_prefix").value_or("##");
  const auto most = file.find_id(model, "max_input_chars_per_word");
  options.most_characters = static_cast<std::size_t>(most.value_or(100));
  if (options.most_characters > Words::kMostCharacters) {
    file.fail("max_input_chars_per_word",
              "is above the limit of " + std::to_string(Words::kMostCharacters));
  }
}

void read_template(const JsonFile& file, const JsonFile::Object& object,
                   TokenizerSettings& settings) {
  constexpr std::string_view kKey = "single";
  constexpr std::size_t kMostTokens = 16;
  const auto pieces = file.find_array(object, kKey);
  const auto tokens = file.find_object(object, "special_tokens");
  if (!pieces || !tokens) file.fail("post_processor", "is not a complete template");
  bool text_seen = false;
  for (const auto& value : *pieces) {
    const JsonFile::Object piece = file.object(value, kKey);
    const auto text = file.find_object(piece, "Sequence");
    const auto token = file.find_object(piece, "SpecialToken");
    if (text.has_value() == token.has_value() || (text && text_seen) ||
        file.find_id(text ? *text : *token, "type_id").value_or(0) != 0) {
      file.fail(kKey, "is not a template of one text between special tokens of type 0");
    }
    text_seen = text_seen || text;
    if (text) continue;
    const std::string_view name = file.find_string(*token, "id").value_or("");
    const auto definition = file.find_object(*tokens, name);
    const auto ids = definition ? file.find_array(*definition, "ids") : std::nullopt;
    if (!ids) file.fail(name, "is in the template but not among its \"special_tokens\"");
    auto& side = text_seen ? settings.behind : settings.before;
    for (const auto& id : *ids) side.push_back({std::string(name), file.id(id, name)});
    if (settings.before.size() + settings.behind.size() > kMostTokens) break;
  }
  if (!text_seen || settings.before.empty() || settings.behind.empty() ||
      settings.before.size() + settings.behind.size() > kMostTokens) {
    file.fail(kKey, "does not put a few special tokens before and behind the text");
  }
}

void read_post_processor(const JsonFile& file, TokenizerSettings& settings) {
  constexpr std::string_view kKey = "post_processor";
  const JsonFile::Object object = component(file, kKey);
  require_type(file, kKey, type_of(file, object),
               {"TemplateProcessing", "BertProcessing", "RobertaProcessing"});
  if (type_of(file, object) == "TemplateProcessing") return read_template(file, object, settings);
  const auto end = [&](std::string_view key) {
    const auto pair = file.find_array(object, key);
    if (!pair || pair->size() != 2) file.fail(key, "is not a token and its id");
    return TokenizerSettings::TemplateToken{std::string(file.string(pair->at(0), key)),
                                            file.id(pair->at(1), key)};
  };
  settings.before.push_back(end("cls"));
  settings.behind.push_back(end("sep"));
}

}  // namespace

JsonFile::Object word_piece_of(const JsonFile& tokenizer_json) {
  const JsonFile::Object model = component(tokenizer_json, "model");
  require_type(tokenizer_json, "model", model_type(tokenizer_json, model), {"WordPiece"});
  return model;
}

void read_components(const JsonFile& tokenizer_json, TokenizerSettings& settings) {
  read_normalizer(tokenizer_json, settings);
  require_type(
      tokenizer_json, "pre_tokenizer",
      type_of(tokenizer_json,
              only_of(tokenizer_json, component(tokenizer_json, "pre_tokenizer"), "pretokenizers")),
      {"BertPreTokenizer"});
  read_model_options(tokenizer_json, settings);
  read_post_processor(tokenizer_json, settings);
}

}  // namespace tovana::sentence_transformers
