#pragma once

#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

#include <sysexits.h>

/// How a command ends when it cannot do its work: it throws, and `main` turns what was thrown into
/// one line on stderr and an exit status.
namespace tovana::tool {

/// What the process says to its caller; the numbers are those of <sysexits.h>.
enum class ExitStatus : int {
  success = EX_OK,
  different = 1,  ///< The answer of migrate-check that asks for work; no failure.
  usage = EX_USAGE,
  bad_data = EX_DATAERR,
  no_input = EX_NOINPUT,
  call_failed = EX_UNAVAILABLE,
  internal = EX_SOFTWARE,
  cannot_write = EX_IOERR,
  not_ready = EX_TEMPFAIL,
  interrupted = 130,  ///< What shells report for a command that SIGINT ended.
};

/// An error for the user. The message says what failed, where, and what to do about it.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& message)
      : std::runtime_error(message), _status(status) {}

  ExitStatus status() const noexcept { return _status; }

 private:
  ExitStatus _status;
};

/// The user wants the command to end: there is nothing to say about it.
class Interrupted : public std::exception {
 public:
  const char* what() const noexcept override { return "interrupted"; }
};

/// Nobody reads the output any more (`| head -1`): the process ends as SIGPIPE would have ended it.
class ClosedPipe : public std::exception {
 public:
  const char* what() const noexcept override { return "closed pipe"; }
};

/// The system's words for an `errno`.
std::string system_reason(int error_number);

/// Writes "tovana-embed: MESSAGE" to stderr as one line, whatever the message holds. Never fails.
void report(std::string_view message) noexcept;

}  // namespace tovana::tool
