#include "sentence_transformers/model/prompts.h"

#include <algorithm>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {

Prompts::Prompts(const JsonObject& settings,
                 const std::function<std::size_t(const std::string& text)>& count_skipped) {
  if (const auto prompts = settings.object("prompts")) {
    for (const auto& [name, ignored] : prompts->members_by_name()) {
      std::string text(prompts->text(name).value_or(""));
      const std::size_t skipped = text.empty() ? 0 : count_skipped(text);
      _all.push_back(
          {.name = std::string(name), .text = std::move(text), .skipped_tokens = skipped});
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

const Prompt* Prompts::find(std::optional<std::string_view> name) const {
  if (!name) return _default ? &_all[*_default] : nullptr;
  const auto found = std::ranges::find(_all, *name, &Prompt::name);
  if (found != _all.end()) return &*found;
  std::string known;
  for (const Prompt& prompt : _all) {
    known += (known.empty() ? "" : ", ") + files::in_quotes(prompt.name);
  }
  throw ValueError("the model has no prompt " + files::in_quotes(*name) +
                   (known.empty() ? ", and no others" : "; it has " + known));
}

}  // namespace tovana::sentence_transformers
