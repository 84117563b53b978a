#include "sentence_transformers/tokenizer/post_processors/read_post_processor.h"

#include <cstddef>
#include <iterator>
#include <string_view>
#include <utility>

#include "sentence_transformers/tokenizer/step_json.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::size_t kMostTokens = 16;

/// One token with its id, as "cls" and "sep" are.
SpecialEnds::Token read_end(const JsonObject& step, std::string_view key) {
  const auto pair = step.array(key);
  if (!pair || pair->size() != 2) step.refuse(key, "is not a token and its id");
  return {std::string(step.text_of(pair->at(0), key)), step.id_of(pair->at(1), key)};
}

SpecialEnds read_pair(const JsonObject& step) {
  refuse_others(step, {"cls", "sep", "trim_offsets", "add_prefix_space"});
  return {{read_end(step, "cls")}, {read_end(step, "sep")}};
}

/// The ids that a template's own list gives a token.
void append_tokens(const JsonObject& step, const JsonObject& tokens, std::string_view name,
                   std::vector<SpecialEnds::Token>& side) {
  const auto definition = tokens.object(name);
  const auto ids = definition ? definition->array("ids") : std::nullopt;
  if (!ids) step.refuse(name, "is in the template but not among its \"special_tokens\"");
  for (const auto& id : *ids) side.push_back({std::string(name), definition->id_of(id, name)});
}

SpecialEnds read_template(const JsonObject& step) {
  constexpr std::string_view kSingle = "single";
  refuse_others(step, {kSingle, "pair", "special_tokens"});  // Texts never come in pairs here.
  const auto pieces = step.array(kSingle);
  const auto tokens = step.object("special_tokens");
  if (!pieces || !tokens) step.refuse("is not a complete template");
  SpecialEnds ends;
  bool text_seen = false;
  for (const auto& value : *pieces) {
    const JsonObject piece = step.object_of(value, kSingle);
    const auto text = piece.object("Sequence");
    const auto token = piece.object("SpecialToken");
    if (text.has_value() == token.has_value() || (text && text_seen) ||
        (text ? text : token)->id("type_id").value_or(0) != 0) {
      step.refuse(kSingle, "is not a template of one text between special tokens of type 0");
    }
    text_seen = text_seen || text;
    if (text) continue;
    append_tokens(step, *tokens, token->text("id").value_or(""),
                  text_seen ? ends.behind : ends.before);
    if (ends.before.size() + ends.behind.size() > kMostTokens) {
      step.refuse(kSingle, "has more than " + std::to_string(kMostTokens) + " special tokens");
    }
  }
  if (!text_seen) step.refuse(kSingle, "has no place for the text");
  return ends;
}

SpecialEnds read_step(const JsonObject& step) {
  const std::string_view type = type_of(step);
  if (type == "TemplateProcessing") return read_template(step);
  if (type == "BertProcessing" || type == "RobertaProcessing") return read_pair(step);
  // It only changes where in the text a token is said to be.
  if (type == "ByteLevel") {
    refuse_others(step, {"add_prefix_space", "trim_offsets", "use_regex"});
    return {};
  }
  refuse_type(step);
}

}  // namespace

SpecialEnds read_post_processor(const JsonObject& tokenizer_json) {
  constexpr std::string_view kPostProcessor = "post_processor";
  SpecialEnds ends;
  for_each_step(tokenizer_json, kPostProcessor, "processors", [&](const JsonObject& step) {
    SpecialEnds added = read_step(step);
    ends.before.insert(ends.before.begin(), std::make_move_iterator(added.before.begin()),
                       std::make_move_iterator(added.before.end()));
    ends.behind.insert(ends.behind.end(), std::make_move_iterator(added.behind.begin()),
                       std::make_move_iterator(added.behind.end()));
  });
  if (ends.before.empty() && ends.behind.empty()) {
    tokenizer_json.refuse(kPostProcessor,
                          "puts no special token around a text, so that an empty one has none");
  }
  return ends;
}

}  // namespace tovana::sentence_transformers
