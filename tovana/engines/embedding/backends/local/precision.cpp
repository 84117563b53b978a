#include "tovana/engines/embedding/backends/local/precision.h"

#include <string>
#include <type_traits>

#include "tovana/base/logging.h"
#include "tovana/base/text.h"
#include "tovana/engines/embedding/backends/local/model_library.h"
#include "tovana/engines/embedding/settings.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {
namespace {

constexpr Logger log("engines.embedding.local");

/// The variable's text; none if it is not set, or holds white space alone.
std::optional<std::string> text_in(const Environment* environment) {
  std::optional<std::string> value = environment_variable(EMBED_PRECISION_ENV, environment);
  if (value && trimmed(*value).empty()) value.reset();
  return value;
}

void log_settled(Precision asked, Precision used, const ModelLibraryDescription& library) {
  const std::string_view name = precision_name(used);
  if (used == asked) {
    log.info("Local models compute in %s (%s, %s)", name, library.runtime, library.kernels);
  } else {
    log.info("Local models compute in %s (%s, %s), not in %s as asked: %s", name, library.runtime,
             library.kernels, precision_name(asked),
             library.runtime == "native" ? "this processor lacks AVX512_BF16"
                                         : "this model library knows no other");
  }
}

}  // namespace

constinit PrecisionSetting EMBED_PRECISION;
static_assert(std::is_trivially_destructible_v<PrecisionSetting>);

std::string_view precision_name(Precision precision) noexcept {
  return precision == Precision::bfloat16 ? "bfloat16" : "float32";
}

std::optional<Precision> precision_named(std::string_view name) noexcept {
  for (const Precision precision : {Precision::float32, Precision::bfloat16}) {
    if (name == precision_name(precision)) return precision;
  }
  return std::nullopt;
}

void PrecisionSetting::request(Precision precision) {
  State state = _state;
  while (state.used == kNone) {
    if (_state.compare_exchange_weak(state, {.asked = precision, .used = kNone})) return;
  }
  if (precision != state.asked && precision != state.used) {
    throw RuntimeError("the local models of this process compute in " +
                       std::string(precision_name(state.used)) + " already: ask for " +
                       std::string(precision_name(precision)) + " before the first is loaded");
  }
}

std::optional<Precision> PrecisionSetting::used() const noexcept {
  const State state = _state;
  if (state.used == kNone) return std::nullopt;
  return state.used;
}

Precision PrecisionSetting::_settle(const ModelLibrary& library, const Environment* environment) {
  State state = _state;
  while (state.used == kNone) {
    std::optional<std::string> text;
    State settled = state;
    if (settled.asked == kNone) {
      text = text_in(environment);
      const auto named = precision_named(ascii_lower(trimmed(text.value_or(""))));
      settled.asked = named.value_or(Precision::float32);
      if (named) text.reset();
    }
    settled.used = library.supports(settled.asked) ? settled.asked : Precision::float32;
    if (!_state.compare_exchange_strong(state, settled)) continue;
    if (text) {
      log.warning("%s is '%s', which is no precision: set it to float32 or bfloat16",
                  EMBED_PRECISION_ENV, escape_control_characters(*text));
    }
    log_settled(settled.asked, settled.used, library.describe());
    return settled.used;
  }
  return state.used;
}

}  // namespace tovana::embedding
