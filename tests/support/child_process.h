#pragma once

#include <cstdio>
#include <functional>

#include <sys/wait.h>
#include <unistd.h>

namespace tovana::testing {

/// Runs a test's code in a forked child. Returns the status that it returned or exited with, or that
/// of its death: not below 256 then. A child that hangs is ended.
inline int run_in_child(const std::function<int()>& code) {
  std::fflush(nullptr);  // so that the child's exit writes nothing a second time
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(20);
    ::_exit(code());
  }
  int status = -1;
  if (::waitpid(child, &status, 0) != child) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + status;
}

}  // namespace tovana::testing
