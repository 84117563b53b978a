#include "sentence_transformers/tokenizer/pre_tokenizers/read_pre_tokenizers.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "sentence_transformers/tokenizer/named_values.h"
#include "sentence_transformers/tokenizer/pattern_json.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/bert_pre_tokenizer.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/byte_level.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/metaspace.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/split.h"
#include "sentence_transformers/tokenizer/step_json.h"
#include "sentence_transformers/tokenizer/unicode_tables.h"

namespace tovana::sentence_transformers {
namespace {

/// What a table has under the name that is a member's value.
template <class Table>
auto value_of(const JsonObject& step, std::string_view member, const Table& table,
              std::string_view name) {
  if (const auto value = find_named(table, name)) return *value;
  step.refuse(member, "is " + files::in_quotes(name) + ", which is not supported");
}

SplitBehavior read_behavior(const JsonObject& step, std::string_view otherwise) {
  constexpr std::string_view kBehavior = "behavior";
  constexpr std::pair<std::string_view, SplitBehavior> kBehaviors[] = {
      {"Removed", SplitBehavior::removed},
      {"Isolated", SplitBehavior::isolated},
      {"MergedWithPrevious", SplitBehavior::merged_with_previous},
      {"MergedWithNext", SplitBehavior::merged_with_next},
      {"Contiguous", SplitBehavior::contiguous},
  };
  return value_of(step, kBehavior, kBehaviors, step.text(kBehavior).value_or(otherwise));
}

PreTokenizerStep byte_level(const JsonObject& step) {
  // What is trimmed are the places of tokens in the text, not the tokens.
  refuse_others(step, {"add_prefix_space", "trim_offsets", "use_regex"});
  return std::make_unique<ByteLevel>(step.flag("add_prefix_space").value_or(true),
                                     step.flag("use_regex").value_or(true));
}

PreTokenizerStep metaspace(const JsonObject& step) {
  constexpr std::string_view kScheme = "prepend_scheme";
  constexpr std::string_view kMark = "replacement";
  // Older files have "str_rep", of which only "replacement" counts, and a flag for the scheme.
  refuse_others(step, {kMark, "str_rep", kScheme, "add_prefix_space", "split"});
  constexpr std::pair<std::string_view, Metaspace::Prepend> kSchemes[] = {
      {"always", Metaspace::Prepend::always},
      {"first", Metaspace::Prepend::first},
      {"never", Metaspace::Prepend::never},
  };
  const std::string mark(required_text(step, kMark));
  if (mark.empty()) step.refuse(kMark, "is empty");
  const bool prepends = step.flag("add_prefix_space").value_or(true);
  const std::string_view scheme =
      step.text(kScheme).value_or(prepends ? std::string_view("always") : "never");
  return std::make_unique<Metaspace>(mark, value_of(step, kScheme, kSchemes, scheme),
                                     step.flag("split").value_or(true));
}

PreTokenizerStep split(const JsonObject& step) {
  refuse_others(step, {"pattern", "behavior", "invert"});
  return std::make_unique<Split>(read_pattern(step), read_behavior(step, ""),
                                 step.flag("invert").value_or(false));
}

PreTokenizerStep punctuation(const JsonObject& step) {
  refuse_others(step, {"behavior"});
  return std::make_unique<SplitAtCharacters>(is_punctuation, read_behavior(step, "Isolated"));
}

PreTokenizerStep digits(const JsonObject& step) {
  refuse_others(step, {"individual_digits"});
  const bool alone = step.flag("individual_digits").value_or(false);
  return std::make_unique<SplitAtCharacters>(
      is_numeric, alone ? SplitBehavior::isolated : SplitBehavior::contiguous);
}

PreTokenizerStep white_space(const JsonObject& step) {
  refuse_others(step, {});
  return std::make_unique<SplitAtCharacters>(unicode::is_white_space, SplitBehavior::removed);
}

template <class Step>
PreTokenizerStep plain(const JsonObject& step) {
  refuse_others(step, {});
  return std::make_unique<Step>();
}

PreTokenizerStep read_pre_tokenizer(const JsonObject& step) {
  constexpr std::pair<std::string_view, PreTokenizerStep (*)(const JsonObject&)> kTypes[] = {
      {"BertPreTokenizer", plain<BertPreTokenizer>},
      {"ByteLevel", byte_level},
      {"Digits", digits},
      {"Metaspace", metaspace},
      {"Punctuation", punctuation},
      {"Split", split},
      {"Whitespace", plain<Whitespace>},
      {"WhitespaceSplit", white_space},
  };
  if (const auto read = find_named(kTypes, type_of(step))) return (*read)(step);
  refuse_type(step);
}

}  // namespace

std::vector<PreTokenizerStep> read_pre_tokenizers(const JsonObject& tokenizer_json) {
  std::vector<PreTokenizerStep> steps;
  for_each_step(tokenizer_json, "pre_tokenizer", "pretokenizers",
                [&](const JsonObject& step) { steps.push_back(read_pre_tokenizer(step)); });
  return steps;
}

}  // namespace tovana::sentence_transformers
