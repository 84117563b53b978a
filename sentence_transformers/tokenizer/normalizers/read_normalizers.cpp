#include "sentence_transformers/tokenizer/normalizers/read_normalizers.h"

#include <memory>
#include <string>
#include <utility>

#include "sentence_transformers/tokenizer/base64.h"
#include "sentence_transformers/tokenizer/named_values.h"
#include "sentence_transformers/tokenizer/normalizers/bert_normalizer.h"
#include "sentence_transformers/tokenizer/normalizers/plain_normalizers.h"
#include "sentence_transformers/tokenizer/normalizers/precompiled.h"
#include "sentence_transformers/tokenizer/normalizers/unicode_normalizer.h"
#include "sentence_transformers/tokenizer/pattern_json.h"
#include "sentence_transformers/tokenizer/step_json.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::string_view kMap = "precompiled_charsmap";

NormalizerStep bert(const JsonObject& step) {
  refuse_others(step, {"clean_text", "handle_chinese_chars", "strip_accents", "lowercase"});
  const auto flag = [&](std::string_view key, bool otherwise) {
    return step.flag(key).value_or(otherwise);
  };
  NormalizerOptions options;
  options.clean_text = flag("clean_text", true);
  options.handle_chinese_chars = flag("handle_chinese_chars", true);
  options.lowercase = flag("lowercase", true);
  options.strip_accents = flag("strip_accents", options.lowercase);
  return std::make_unique<BertNormalizerStep>(options);
}

NormalizerStep precompiled(const JsonObject& step) {
  refuse_others(step, {kMap});
  const std::string_view map = required_text(step, kMap);
  return made_of(step, kMap, [&] { return std::make_unique<Precompiled>(decode_base64(map)); });
}

NormalizerStep strip(const JsonObject& step) {
  refuse_others(step, {"strip_left", "strip_right"});
  return std::make_unique<Strip>(step.flag("strip_left").value_or(true),
                                 step.flag("strip_right").value_or(true));
}

NormalizerStep prepend(const JsonObject& step) {
  refuse_others(step, {"prepend"});
  return std::make_unique<Prepend>(std::string(required_text(step, "prepend")));
}

NormalizerStep replace(const JsonObject& step) {
  refuse_others(step, {"pattern", "content"});
  return std::make_unique<Replace>(read_pattern(step), std::string(required_text(step, "content")));
}

template <UnicodeForm kForm>
NormalizerStep unicode_form(const JsonObject& step) {
  refuse_others(step, {});
  return std::make_unique<UnicodeNormalizer>(kForm);
}

template <class Step>
NormalizerStep plain(const JsonObject& step) {
  refuse_others(step, {});
  return std::make_unique<Step>();
}

NormalizerStep read_normalizer(const JsonObject& step) {
  constexpr std::pair<std::string_view, NormalizerStep (*)(const JsonObject&)> kTypes[] = {
      {"BertNormalizer", bert},
      {"Lowercase", plain<Lowercase>},
      {"NFC", unicode_form<UnicodeForm::nfc>},
      {"NFD", unicode_form<UnicodeForm::nfd>},
      {"NFKC", unicode_form<UnicodeForm::nfkc>},
      {"NFKD", unicode_form<UnicodeForm::nfkd>},
      {"Nmt", plain<Nmt>},
      {"Precompiled", precompiled},
      {"Prepend", prepend},
      {"Replace", replace},
      {"Strip", strip},
      {"StripAccents", plain<StripAccents>},
  };
  if (const auto read = find_named(kTypes, type_of(step))) return (*read)(step);
  refuse_type(step);
}

}  // namespace

std::vector<NormalizerStep> read_normalizers(const JsonObject& tokenizer_json) {
  std::vector<NormalizerStep> steps;
  for_each_step(tokenizer_json, "normalizer", "normalizers",
                [&](const JsonObject& step) { steps.push_back(read_normalizer(step)); });
  return steps;
}

NormalizerStep read_precompiled(const JsonObject& tokenizer_json) {
  NormalizerStep found;
  for_each_step(tokenizer_json, "normalizer", "normalizers", [&](const JsonObject& step) {
    if (!found && type_of(step) == "Precompiled") found = precompiled(step);
  });
  return found;
}

}  // namespace tovana::sentence_transformers
