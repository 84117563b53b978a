#pragma once

#include <cstddef>
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
};

/// A model's prompts. Immutable.
class Prompts {
 public:
  /// Those that every model has: "document" and "query", which are empty unless it says otherwise.
  Prompts();

  /// Also those of config_sentence_transformers.json. Throws ModelFilesError for prompts that are no
  /// texts, or a default that is not among them.
  explicit Prompts(const JsonObject& settings);

  /// In the order of their names.
  const std::vector<Prompt>& all() const noexcept { return _all; }

  /// The index of the one that stands before a text unless another is asked for; null for none.
  std::optional<std::size_t> default_index() const noexcept { return _default; }

  /// The text of the prompt of this name; without one that of the default, empty when there is none.
  /// Throws ValueError, naming those there are, for a name that no prompt has.
  std::string_view text_of(std::optional<std::string_view> name) const;

 private:
  std::vector<Prompt> _all;
  std::optional<std::size_t> _default;
};

}  // namespace tovana::sentence_transformers
