#include "sentence_transformers/model/known_members.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

namespace tovana::sentence_transformers {
namespace {

constexpr std::array kSentenceBert = std::to_array<KnownMember>({
    {"max_seq_length", ""},
    {"do_lower_case", ""},
    {"processing_kwargs.common", "{}"},
    {"processing_kwargs.text.max_length", ""},
    {"processing_kwargs.text.add_special_tokens", "true"},
    {"processing_kwargs.text.truncation", "true"},
    {"processing_kwargs.text.padding", ""},
    {"processing_kwargs.text.return_tensors", ""},
    {"processor_kwargs.model_max_length", ""},
    {"processor_kwargs.do_lower_case", ""},
    {"processor_kwargs.strip_accents", ""},
    {"processor_kwargs.tokenize_chinese_chars", ""},
    {"processor_kwargs.use_fast", "true"},
    {"processor_kwargs.trust_remote_code", "false"},
    {"processor_kwargs.local_files_only", ""},
    {"model_kwargs.add_pooling_layer", ""},
    {"model_kwargs.attn_implementation", ""},
    {"model_kwargs.dtype", ""},
    {"model_kwargs.torch_dtype", ""},
    {"model_kwargs.trust_remote_code", "false"},
    {"model_kwargs.use_safetensors", ""},
    {"config_kwargs.trust_remote_code", "false"},
    {"transformer_task", R"("feature-extraction")"},
    {"modality_config.text.method", R"("forward")"},
    {"modality_config.text.method_output_name", R"("last_hidden_state")"},
    {"module_output_name", R"("token_embeddings")"},
    {"unpad_inputs", ""},
    {"backend", R"("torch")"},
    {"cache_dir", ""},
});

/// Members with the names that they had before 6.0.
constexpr std::pair<std::string_view, std::string_view> kOldNames[] = {
    {"config_args", "config_kwargs"},
    {"model_args", "model_kwargs"},
    {kOldProcessorSettings, kProcessorSettings},
};

constexpr std::array kSentenceTransformers = std::to_array<KnownMember>({
    {"__version__", ""},
    {"model_type", R"("SentenceTransformer")", false},
    {"prompts", ""},
    {"default_prompt_name", ""},
    {"similarity_fn_name", ""},
    {"truncate_dim", ""},
    {"requirements", ""},
});

constexpr std::array kConfig = std::to_array<KnownMember>({
    {"add_cross_attention", "false"},
    {"is_causal", "false"},
    {"is_decoder", "false"},
    {"pruned_heads", "{}"},
    {"quantization_config", "null"},
    {"transformers_weights", R"("model.safetensors")"},
});

std::string current_name(std::string_view name) {
  for (const auto& [old, now] : kOldNames) {
    if (name == old) return std::string(now);
  }
  return std::string(name);
}

/// Checks what an object holds: one that messages call `outer`, and the table `known_as`.
void check(const JsonObject& settings, const JsonObject& object, const std::string& outer,
           const std::string& known_as, const KnownMembers& known) {
  for (const auto& [key, value] : object.members_by_name()) {
    const std::string shown_name = outer + std::string(key);
    const std::string name = known_as.empty() ? current_name(key) : known_as + std::string(key);
    const auto found = std::ranges::find(known.members, name, &KnownMember::name);
    const bool is_known = found != known.members.end();
    if (value.is_null() && (!is_known || found->is_null_absent)) continue;
    const auto is_inside = [&name](const KnownMember& member) {
      return member.name.starts_with(name + ".");
    };
    if (is_known) {
      if (!found->only.empty() && simdjson::minify(value) != found->only) {
        settings.refuse(files::in_quotes(shown_name) + " is " + shown(value) +
                        "; supported: " + std::string(found->only));
      }
    } else if (value.is_object() && std::ranges::any_of(known.members, is_inside)) {
      check(settings, object.object_of(value, key), shown_name + ".", name + ".", known);
    } else if (known.is_complete) {
      settings.refuse(files::in_quotes(shown_name) +
                      " is not supported, and might change vectors; remove it if it does not");
    }
  }
}

}  // namespace

constinit const KnownMembers kConfigMembers = {.members = kConfig, .is_complete = false};
constinit const KnownMembers kSentenceBertMembers = {.members = kSentenceBert, .is_complete = true};
constinit const KnownMembers kSentenceTransformersMembers = {.members = kSentenceTransformers,
                                                             .is_complete = true};

void check_members(const JsonObject& settings, const KnownMembers& known) {
  check(settings, settings, "", "", known);
}

}  // namespace tovana::sentence_transformers
