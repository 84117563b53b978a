#include "sentence_transformers/model/transformer_config.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>

#include "sentence_transformers/model/known_members.h"
#include "sentence_transformers/tokenizer/json_object.h"
#include "tovana/files/architectures.h"

namespace tovana::sentence_transformers {
namespace {

/// MPNet's positions begin behind the padding's index, 1.
constexpr std::int64_t kMPNetFirstPosition = 2;

Architecture architecture_of(const JsonObject& config) {
  const std::string_view type = config.text("model_type").value_or("");
  if (!files::is_known_architecture(type)) {
    config.refuse("\"model_type\" is " + files::in_quotes(type) +
                  "; supported: " + files::known_architectures());
  }
  return type == "mpnet" ? Architecture::mpnet : Architecture::bert;
}

Activation hidden_activation(const JsonObject& config) {
  const std::string_view name = config.text("hidden_act").value_or("gelu");
  const std::optional<Activation> activation = activation_from_hidden_act(name);
  if (!activation) {
    config.refuse("\"hidden_act\" is " + files::in_quotes(name) +
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
/// texts that would are those on which the models' own library fails.
std::optional<std::int64_t> own_length(const files::ModelDirectory& directory,
                                       const std::optional<JsonObject>& sentence) {
  constexpr const char* kOfTokenizer = "model_max_length";
  const auto above = processor_settings(sentence);
  if (above && above->contains(kOfTokenizer)) return above->limit(kOfTokenizer);
  if (const auto own = sentence ? sentence->limit("max_seq_length") : std::nullopt) return own;
  const auto tokenizer = JsonObject::read(directory, "tokenizer_config.json");
  return tokenizer ? tokenizer->limit(kOfTokenizer) : std::nullopt;
}

std::size_t max_length_of(const files::ModelDirectory& directory,
                          const std::optional<JsonObject>& sentence, std::int64_t longest) {
  const std::int64_t length = std::min(own_length(directory, sentence).value_or(longest), longest);
  return static_cast<std::size_t>(length_of_call(sentence, length));
}

}  // namespace

TransformerConfig read_transformer_config(const files::ModelDirectory& directory, bool is_module) {
  const JsonObject config = JsonObject::read_required(directory, "config.json");
  const Architecture architecture = architecture_of(config);
  const bool is_bert = architecture == Architecture::bert;

  check_members(config, kConfigMembers);

  TransformerConfig result = {
      .architecture = architecture,
      .vocabulary = config.count("vocab_size").value_or(is_bert ? 30522 : 30527),
      .positions = config.count("max_position_embeddings").value_or(512),
      .token_types = is_bert ? config.count("type_vocab_size").value_or(2) : 0,
      .hidden = config.count("hidden_size").value_or(768),
      .layers = config.count("num_hidden_layers").value_or(12),
      .heads = config.count("num_attention_heads").value_or(12),
      .distance_buckets = is_bert ? 0
                                  : config.count("relative_attention_num_buckets", kMPNetBuckets)
                                        .value_or(kMPNetBuckets),
      .intermediate = config.count("intermediate_size").value_or(3072),
      .activation = hidden_activation(config),
      .layer_norm_eps = config.number("layer_norm_eps").value_or(1e-12),
      .generates = generates_text(config),
      .max_length = 0,
      .tokenizer = {},
  };
  if (result.hidden % result.heads != 0) {
    config.refuse("\"hidden_size\", " + std::to_string(result.hidden) +
                  ", is not a multiple of \"num_attention_heads\", " +
                  std::to_string(result.heads));
  }
  if (!(result.layer_norm_eps >= 0)) config.refuse("\"layer_norm_eps\" is negative");
  const std::int64_t longest = is_bert ? result.positions : result.positions - kMPNetFirstPosition;
  if (longest < 1) {
    config.refuse("\"max_position_embeddings\" is " + std::to_string(result.positions) +
                  ", which leaves no position for a token");
  }
  const auto sentence = is_module ? read_sentence_settings(directory) : std::nullopt;
  if (!is_module) refuse_chat_template(directory);
  result.max_length = max_length_of(directory, sentence, longest);
  result.tokenizer = tokenizer_options(sentence);
  return result;
}

}  // namespace tovana::sentence_transformers
