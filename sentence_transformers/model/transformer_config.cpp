#include "sentence_transformers/model/transformer_config.h"

#include <algorithm>
#include <optional>
#include <string>

#include "sentence_transformers/model/known_members.h"
#include "sentence_transformers/tokenizer/json_object.h"

namespace tovana::sentence_transformers {
namespace {

std::int64_t read(const JsonObject& config, const Setting<std::int64_t>& setting) {
  if (setting.name.empty()) return setting.otherwise;
  return config.count(setting.name_in(config), setting.least).value_or(setting.otherwise);
}

double read(const JsonObject& config, const Setting<double>& setting) {
  if (setting.name.empty()) return setting.otherwise;
  const std::string_view name = setting.name_in(config);
  const double value = config.number(name).value_or(setting.otherwise);
  if (!(value >= 0)) config.refuse(files::in_quotes(name) + " is negative");
  return value;
}

Activation read(const JsonObject& config, const Setting<std::string_view>& setting) {
  const std::string_view name = config.text(setting.name).value_or(setting.otherwise);
  const std::optional<Activation> activation = activation_from_hidden_act(name);
  if (!activation) {
    config.refuse(files::in_quotes(setting.name) + " is " + files::in_quotes(name) +
                  "; supported: " + std::string(kHiddenActs));
  }
  return *activation;
}

/// sentence_bert_config.json, or what older models call it.
std::optional<JsonObject> read_sentence_settings(const files::ModelDirectory& directory) {
  for (const char* name : {"sentence_bert_config.json", "sentence_roberta_config.json",
                           "sentence_distilbert_config.json", "sentence_camembert_config.json",
                           "sentence_albert_config.json", "sentence_xlm-roberta_config.json",
                           "sentence_xlnet_config.json"}) {
    std::optional<JsonObject> settings = JsonObject::read(directory, name);
    if (!settings || settings->members().size() == 0) continue;
    check_members(*settings, kSentenceBertMembers);
    return settings;
  }
  return std::nullopt;
}

/// What sentence_bert_config.json puts above the tokenizer's own files. Under the old name it
/// replaces what stands under the new one, all of it.
std::optional<JsonObject> processor_settings(const std::optional<JsonObject>& sentence) {
  if (!sentence) return std::nullopt;
  std::optional<JsonObject> settings = sentence->object(kOldProcessorSettings);
  return settings ? settings : sentence->object(kProcessorSettings);
}

TokenizerOptions tokenizer_options(const std::optional<JsonObject>& sentence) {
  TokenizerOptions options;
  if (sentence) options.lowercase_first = sentence->flag("do_lower_case").value_or(false);
  if (const auto settings = processor_settings(sentence)) {
    options.do_lower_case = settings->flag("do_lower_case");
    options.strip_accents = settings->flag("strip_accents");
    options.tokenize_chinese_chars = settings->flag("tokenize_chinese_chars");
  }
  return options;
}

/// In a plain model's folder a template of a chat wraps every text in what it says. In a module's it
/// does not, unless "modality_config" asks for that, which is refused where that is read.
void refuse_chat_template(const files::ModelDirectory& directory) {
  const std::string fault = "a template of a chat, which is not supported; remove it";
  for (const char* name : {"chat_template.jinja", "additional_chat_templates/default.jinja"}) {
    if (directory.open(name, files::ModelDirectory::kLargestConfig)) {
      throw files::ModelFilesError(directory.path_of(name) + ": " + fault);
    }
  }
  const auto tokenizer = JsonObject::read(directory, "tokenizer_config.json");
  if (tokenizer && tokenizer->find("chat_template")) {
    tokenizer->refuse("\"chat_template\" is " + fault);
  }
}

bool generates_text(const JsonObject& config) {
  if (config.contains("is_causal")) return false;  // Any but false is refused.
  const auto architectures = config.find("architectures");
  std::string_view first;
  return architectures && architectures->is_array() &&
         architectures->at(0).get(first) == simdjson::SUCCESS && first.ends_with("ForCausalLM");
}

/// The length that each text is read with, if that is set apart from the model's. Which of the two
/// counts where the former is the longer one is not known: that is refused.
std::int64_t length_of_call(const std::optional<JsonObject>& sentence, std::int64_t length) {
  const auto processing = sentence ? sentence->object("processing_kwargs") : std::nullopt;
  const auto text = processing ? processing->object("text") : std::nullopt;
  if (!text) return length;
  const std::int64_t own = text->limit("max_length").value_or(length);
  if (own > length) {
    text->refuse("\"max_length\" is " + std::to_string(own) + ", and the model's limit is " +
                 std::to_string(length) + "; set it to that or less");
  }
  return own;
}

/// The length that is set above the tokenizer's files wins, and a null there means none; then the
/// model's, then the tokenizer's. None reaches beyond the table of positions, whatever it says: the
/// texts that would are those on which the models' own library fails. Without such a table, the
/// model's own reaches as far as it says.
std::int64_t own_length(const files::ModelDirectory& directory,
                        const std::optional<JsonObject>& sentence, std::int64_t longest,
                        bool has_table) {
  constexpr const char* kOfTokenizer = "model_max_length";
  const auto limited = [longest](std::optional<std::int64_t> length) {
    return std::min(length.value_or(longest), longest);
  };
  const auto above = processor_settings(sentence);
  if (above && above->contains(kOfTokenizer)) return limited(above->limit(kOfTokenizer));
  if (const auto own = sentence ? sentence->limit("max_seq_length") : std::nullopt) {
    return has_table ? limited(own) : *own;
  }
  const auto tokenizer = JsonObject::read(directory, "tokenizer_config.json");
  return limited(tokenizer ? tokenizer->limit(kOfTokenizer) : std::nullopt);
}

/// Throws unless heads divide what they share.
void check_heads(const JsonObject& config, const TransformerConfig& result) {
  const Family& family = *result.family;
  if (result.head_width == 0) {
    config.refuse(files::in_quotes(family.hidden.name_in(config)) + ", " +
                  std::to_string(result.hidden) + ", is not a multiple of " +
                  files::in_quotes(family.heads.name_in(config)) + ", " +
                  std::to_string(result.heads));
  }
  const bool turns = std::ranges::any_of(
      result.attention, [](const AttentionKind& kind) { return kind.rotary.has_value(); });
  if (turns && result.head_width % 2 != 0) {
    config.refuse("heads are " + std::to_string(result.head_width) +
                  " wide, and rotary positions ask for an even number");
  }
}

/// Tokens for which the model has a position.
std::int64_t longest_text(const JsonObject& config, const TransformerConfig& result) {
  const bool has_padding = result.family->position_table == PositionTable::behind_padding;
  const std::int64_t longest = result.positions - (has_padding ? result.padding_id + 1 : 0);
  if (longest < 1) {
    config.refuse(files::in_quotes(result.family->positions.name_in(config)) + " is " +
                  std::to_string(result.positions) + ", which leaves no position for a token");
  }
  return longest;
}

}  // namespace

TransformerConfig read_transformer_config(const files::ModelDirectory& directory, bool is_module) {
  const JsonObject config = JsonObject::read_required(directory, "config.json");
  const Family& family = family_of(config);
  check_members(config, kConfigMembers);
  if (family.members != nullptr) check_members(config, *family.members);

  const std::int64_t hidden = read(config, family.hidden);
  const std::int64_t heads = read(config, family.heads);
  TransformerConfig result = {
      .family = &family,
      .vocabulary = read(config, family.vocabulary),
      .positions = read(config, family.positions),
      .padding_id = read(config, family.padding_id),
      .token_types = read(config, family.token_types),
      .embedding_width = hidden,
      .distance_buckets = 0,
      .layers = read(config, family.layers),
      .hidden = hidden,
      .heads = heads,
      .head_width = hidden % heads == 0 ? hidden / heads : 0,
      .intermediate = read(config, family.intermediate),
      .attention = {},
      .attention_of_layer = {},
      .biases = family.biases,
      .activation = read(config, family.activation),
      .norm_eps = read(config, family.norm_eps),
      .generates = generates_text(config),
      .max_length = 0,
      .tokenizer = {},
  };
  if (family.complete != nullptr) family.complete(config, result);
  if (result.attention.empty()) result.attention.emplace_back();
  check_heads(config, result);

  const auto sentence = is_module ? read_sentence_settings(directory) : std::nullopt;
  if (!is_module) refuse_chat_template(directory);
  const std::int64_t length = own_length(directory, sentence, longest_text(config, result),
                                         family.position_table != PositionTable::none);
  result.max_length = static_cast<std::size_t>(length_of_call(sentence, length));
  result.tokenizer = tokenizer_options(sentence);
  return result;
}

}  // namespace tovana::sentence_transformers
