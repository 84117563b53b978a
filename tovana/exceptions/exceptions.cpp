#include "tovana/exceptions/exceptions.h"

#include <cstdlib>
#include <memory>
#include <typeinfo>

#include <cxxabi.h>

namespace tovana {

std::string error_kind(const std::exception& error) {
  if (const auto* own = dynamic_cast<const Error*>(&error)) return own->kind();
  const char* mangled = typeid(error).name();
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status), &std::free);
  return status == 0 && demangled != nullptr ? demangled.get() : mangled;
}

std::string failure_text(const std::exception& error) {
  return error_kind(error) + ": " + error.what();
}

}  // namespace tovana
