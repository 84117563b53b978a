#include "tovana/base/json_kernels.h"

#include <string>

#include <simdjson.h>

namespace tovana {
namespace {

/// Another object of the kind that simdjson has chosen; its headers need not show every kind.
const simdjson::implementation* copy_of_chosen() {
  const std::string name = simdjson::get_active_implementation()->name();
#ifdef SIMDJSON_ICELAKE_IMPLEMENTATION_H
  if (name == "icelake") return new simdjson::icelake::implementation;
#endif
#ifdef SIMDJSON_HASWELL_IMPLEMENTATION_H
  if (name == "haswell") return new simdjson::haswell::implementation;
#endif
  return new simdjson::builtin::implementation;  // Runs wherever this file does.
}

}  // namespace

void keep_json_kernels() {
  static const simdjson::implementation* const kept = copy_of_chosen();
  simdjson::get_active_implementation() = kept;
}

}  // namespace tovana
