#include "sentence_transformers/tokenizer/step_json.h"

#include <algorithm>
#include <string>

namespace tovana::sentence_transformers {
namespace {

constexpr std::string_view kType = "type";
constexpr int kMostSteps = 64;

void for_each_step_in(const JsonObject& step, std::string_view members, int& left,
                      const std::function<void(const JsonObject&)>& read) {
  if (left-- == 0) step.refuse("are too many steps");
  if (type_of(step) != "Sequence") return read(step);
  refuse_others(step, {members});
  const auto array = step.array(members);
  if (!array) step.refuse(members, "is missing");
  for (const auto& value : *array) {
    for_each_step_in(step.object_of(value, members), members, left, read);
  }
}

}  // namespace

std::string_view type_of(const JsonObject& step) { return required_text(step, kType); }

void refuse_type(const JsonObject& step) {
  step.refuse(kType, "is " + files::in_quotes(type_of(step)) + ", which is not supported");
}

void refuse_others(const JsonObject& step, std::initializer_list<std::string_view> known) {
  for (const auto& member : step.members()) {
    const bool is_known =
        member.key == kType || std::ranges::find(known, member.key) != known.end();
    if (!is_known) step.refuse(member.key, "is not known in " + files::in_quotes(type_of(step)));
  }
}

void for_each_step(const JsonObject& file, std::string_view name, std::string_view members,
                   const std::function<void(const JsonObject&)>& read) {
  int left = kMostSteps;
  if (const auto step = file.object(name)) for_each_step_in(*step, members, left, read);
}

std::string_view required_text(const JsonObject& step, std::string_view name) {
  const auto text = step.text(name);
  if (!text) step.refuse(name, "is missing");
  return *text;
}

}  // namespace tovana::sentence_transformers
