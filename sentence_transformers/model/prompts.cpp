#include "sentence_transformers/model/prompts.h"

#include <algorithm>
#include <utility>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {

Prompts::Prompts() : _all({{.name = "document", .text = ""}, {.name = "query", .text = ""}}) {}

Prompts::Prompts(const JsonObject& settings) : Prompts() {
  if (const auto prompts = settings.object("prompts")) {
    for (const auto& [name, ignored] : prompts->members_by_name()) {
      const auto place = std::ranges::lower_bound(_all, name, {}, &Prompt::name);
      std::string text(prompts->text(name).value_or(""));
      if (place != _all.end() && place->name == name) {
        place->text = std::move(text);
      } else {
        _all.insert(place, {.name = std::string(name), .text = std::move(text)});
      }
    }
  }
  const auto name = settings.text("default_prompt_name");
  if (!name) return;
  const auto found = std::ranges::find(_all, *name, &Prompt::name);
  if (found == _all.end()) {
    settings.refuse("\"default_prompt_name\" is " + files::in_quotes(*name) +
                    ", and there is no such prompt");
  }
  _default = static_cast<std::size_t>(found - _all.begin());
}

std::string_view Prompts::text_of(std::optional<std::string_view> name) const {
  if (!name) return _default ? _all[*_default].text : std::string_view();
  const auto found = std::ranges::find(_all, *name, &Prompt::name);
  if (found != _all.end()) return found->text;
  std::string known;
  for (const Prompt& prompt : _all) {
    known += (known.empty() ? "" : ", ") + files::in_quotes(prompt.name);
  }
  throw ValueError("the model has no prompt " + files::in_quotes(*name) + "; it has " + known);
}

}  // namespace tovana::sentence_transformers
