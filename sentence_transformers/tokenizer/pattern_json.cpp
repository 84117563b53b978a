#include "sentence_transformers/tokenizer/pattern_json.h"

#include "sentence_transformers/tokenizer/step_json.h"

namespace tovana::sentence_transformers {

Expression read_pattern(const JsonObject& step) {
  constexpr std::string_view kPattern = "pattern";
  const auto pattern = step.object(kPattern);
  if (!pattern) step.refuse(kPattern, "is missing");
  const auto text = pattern->text("String");
  const auto expression = pattern->text("Regex");
  if (text.has_value() == expression.has_value()) {
    step.refuse(kPattern, "is neither a \"String\" nor a \"Regex\"");
  }
  return text ? made_of(*pattern, "String", [&] { return Expression::literal(*text); })
              : made_of(*pattern, "Regex", [&] { return Expression(*expression); });
}

}  // namespace tovana::sentence_transformers
