#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "tovana/base/export.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana {

/// Variables of an environment, by name: what a test gives in place of the process's own.
using Environment = std::map<std::string, std::string, std::less<>>;

/// A variable of the environment has a value that cannot be used. The message names the variable and
/// says what it has to be.
class TOVANA_API EnvironmentVariableError final : public ValueError {
 public:
  using ValueError::ValueError;
};

/// The value of a variable in `environment`, or in the process's own when that is null; none when
/// it is not set. The process's environment is read at each call; nobody may change it meanwhile.
TOVANA_API std::optional<std::string> environment_variable(
    const std::string& name, const Environment* environment = nullptr);

}  // namespace tovana
