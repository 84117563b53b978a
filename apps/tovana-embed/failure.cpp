#include "failure.h"

#include <cerrno>
#include <system_error>

#include <unistd.h>

#include "tovana/base/text.h"

namespace tovana::tool {

std::string system_reason(int error_number) {
  return std::generic_category().message(error_number);
}

void report(std::string_view message) noexcept {
  try {
    const std::string line = "tovana-embed: " + escape_control_characters(message) + "\n";
    std::string_view left = line;
    while (!left.empty()) {
      const ssize_t written = ::write(STDERR_FILENO, left.data(), left.size());
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return;  // there is no better place to complain
      left.remove_prefix(static_cast<std::size_t>(written));
    }
  } catch (...) {  // out of memory: the exit status still tells
  }
}

}  // namespace tovana::tool
