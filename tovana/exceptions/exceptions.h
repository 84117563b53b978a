#pragma once

#include <exception>
#include <stdexcept>
#include <string>

#include "tovana/base/export.h"

/// The error kinds of the daemon. Every error is thrown; none is returned.
///
/// `Error` says what kind of error it is; it is a mixin and no `std::exception` itself. Each
/// concrete kind derives from it and from exactly one standard exception, so that both `catch
/// (const tovana::Error&)` and `catch (const std::exception&)` see every error of ours, the second
/// one without an ambiguous base.
namespace tovana {

class TOVANA_API Error {
 public:
  virtual ~Error() = default;

  /// The short name of the error's class, for example "ValueError". A static string.
  virtual const char* kind() const noexcept = 0;
  /// What went wrong, in words for a person. Lives as long as the error.
  virtual const char* what() const noexcept = 0;

 protected:
  Error() = default;
  Error(const Error&) = default;
  Error& operator=(const Error&) = default;
};

/// An operation failed for a reason outside the arguments it was given.
class TOVANA_API RuntimeError : public Error, public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  const char* kind() const noexcept override { return "RuntimeError"; }
  const char* what() const noexcept override { return std::runtime_error::what(); }
};

/// An argument or a configuration value has a form that the operation cannot work with.
class TOVANA_API ValueError : public Error, public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
  const char* kind() const noexcept override { return "ValueError"; }
  const char* what() const noexcept override { return std::invalid_argument::what(); }
};

/// The request cannot be served now; the same request may succeed later.
class TOVANA_API TryAgainLaterError : public Error, public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  const char* kind() const noexcept override { return "TryAgainLaterError"; }
  const char* what() const noexcept override { return std::runtime_error::what(); }
};

/// The name of an error's kind: `kind()` for ours, the demangled type for any other
/// ("std::bad_alloc").
TOVANA_API std::string error_kind(const std::exception& error);

/// A failure in one line: the kind's name, ": ", and the message.
TOVANA_API std::string failure_text(const std::exception& error);

}  // namespace tovana
