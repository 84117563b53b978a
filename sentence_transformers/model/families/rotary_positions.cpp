#include "sentence_transformers/model/families/rotary_positions.h"

#include <optional>
#include <string>

namespace tovana::sentence_transformers {
namespace {

double positive(const JsonObject& object, std::string_view name, double value) {
  if (!(value > 0)) object.refuse(name, "is not positive");
  return value;
}

}  // namespace

RotaryPositions read_rotary(const JsonObject& config, const std::optional<JsonObject>& own,
                            double theta) {
  if (!own) return {.theta = positive(config, "rope_theta", theta), .factor = 1};
  const bool has_new_name = own->find("rope_type").has_value();
  const char* const name = has_new_name ? "rope_type" : "type";
  const std::string_view type = own->text(name).value_or("default");
  if (type != "default" && type != "linear") {
    own->refuse(files::in_quotes(name) + " is " + files::in_quotes(type) +
                "; supported: default, linear");
  }
  if (own->number("partial_rotary_factor").value_or(1) != 1) {
    own->refuse("partial_rotary_factor", "is not 1, which alone is supported");
  }
  const double base = positive(*own, "rope_theta", own->number("rope_theta").value_or(theta));
  if (type == "default") return {.theta = base, .factor = 1};
  return {.theta = base, .factor = positive(*own, "factor", own->number("factor").value_or(0))};
}

RotaryPositions read_rotary(const JsonObject& config, double theta) {
  std::optional<JsonObject> own = config.object("rope_scaling");
  if (!own || own->members().size() == 0) own = config.object("rope_parameters");
  return read_rotary(config, own, config.number("rope_theta").value_or(theta));
}

}  // namespace tovana::sentence_transformers
