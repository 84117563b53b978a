#pragma once

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "tovana/files/model_directory.h"

namespace tovana::files {

/// The encoders that load, as "model_type" in a model's config.json names them. Here and not beside
/// the encoders, so that whoever fetches a model can tell without the model library.
inline constexpr std::array<std::string_view, 11> kArchitectures = {
    "bert",  "camembert", "distilbert", "electra", "gte",        "modernbert",
    "mpnet", "new",       "nomic_bert", "roberta", "xlm-roberta"};

/// Made to go on writing a text: of these none loads.
inline constexpr std::array<std::string_view, 9> kDecoders = {
    "gemma2", "gemma3", "gemma3_text", "gpt2", "llama", "mistral", "phi3", "qwen2", "qwen3"};

inline bool is_known_architecture(std::string_view model_type) {
  return std::ranges::find(kArchitectures, model_type) != kArchitectures.end();
}

/// What to say of one that does not load.
inline std::string unknown_architecture(std::string_view model_type) {
  const bool is_decoder = std::ranges::find(kDecoders, model_type) != kDecoders.end();
  std::string fault = "\"model_type\" is " + in_quotes(model_type) +
                      (is_decoder ? ", a decoder; supported are encoders: " : "; supported: ");
  for (const std::string_view name : kArchitectures) {
    fault.append(name).append(name == kArchitectures.back() ? "" : ", ");
  }
  return fault;
}

}  // namespace tovana::files
