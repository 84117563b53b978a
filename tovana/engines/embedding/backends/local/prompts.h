#pragma once

#include <map>
#include <optional>
#include <string>

namespace tovana::embedding {

/// The texts that a model wants before others: many are made for one before a query and another, or
/// none, before what is searched.
struct ModelPrompts {
  std::map<std::string, std::string> texts;  ///< By name; "query" and "document" always are there.
  /// Of the one that stands before a text unless another is asked for; null for none.
  std::optional<std::string> default_name;
};

/// What stands before every text of a call, by name only.
struct PromptOptions {
  /// One of the model's prompts; null: its default, or none where it has no default.
  std::optional<std::string> prompt_name = std::nullopt;
  /// A text, in place of any of the model's prompts.
  std::optional<std::string> prompt = std::nullopt;
};

}  // namespace tovana::embedding
