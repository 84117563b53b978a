#include "tovana/base/environment.h"

#include <cstdlib>

namespace tovana {

std::optional<std::string> environment_variable(const std::string& name,
                                                const Environment* environment) {
  if (environment != nullptr) {
    const auto found = environment->find(name);
    if (found == environment->end()) return std::nullopt;
    return found->second;
  }
  const char* const value = std::getenv(name.c_str());
  if (value == nullptr) return std::nullopt;
  return value;
}

}  // namespace tovana
