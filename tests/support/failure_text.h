#pragma once

#include <functional>
#include <string>

#include "tovana/exceptions/exceptions.h"

namespace tovana {

/// What a call throws, as "Kind: message"; "none" when it returns.
inline std::string failure_of(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::exception& error) {
    return failure_text(error);
  }
  return "none";
}

}  // namespace tovana
