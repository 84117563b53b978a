#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sentence_transformers/tokenizer/json_object.h"

namespace tovana::sentence_transformers {

/// What stands before a text, by a name.
struct Prompt {
  std::string name;
  std::string text;
  std::size_t skipped_tokens;  ///< Of each text with it, those that the pooling leaves out.
};

/// A model's prompts. Immutable.
class Prompts {
 public:
  /// None at all.
  Prompts() = default;

  /// Those of config_sentence_transformers.json. `count_skipped` says how many tokens the pooling
  /// leaves out for a prompt's text. Throws ModelFilesError for prompts that are no texts, or a
  /// default that is not among them.
  Prompts(const JsonObject& settings,
          const std::function<std::size_t(const std::string& text)>& count_skipped);

  /// In the order of their names.
  const std::vector<Prompt>& all() const noexcept { return _all; }

  /// The prompt of this name; without one the default, or null when there is none. Throws ValueError,
  /// naming those there are, for a name that no prompt has.
  const Prompt* find(std::optional<std::string_view> name) const;

 private:
  std::vector<Prompt> _all;
  std::optional<std::size_t> _default;
};

}  // namespace tovana::sentence_transformers
