#pragma once

#include <string>

#include "tovana/base/export.h"
#include "tovana/exceptions/exceptions.h"

/// What finding or fetching a model fails with. The messages are one line each: which model, from
/// where, what happened, what to do; never with a token in them.
namespace tovana::hub {

/// The cache does not hold the model, or not all of it: the one failure that fetching can mend.
class TOVANA_API ModelNotCachedError : public RuntimeError {
 public:
  using RuntimeError::RuntimeError;
  const char* kind() const noexcept override { return "ModelNotCachedError"; }
};

/// The hub cannot be reached, refuses, has no such model, or sent something else than it announced.
class TOVANA_API ModelFetchError : public RuntimeError {
 public:
  /// What decides whether trying again may help, and what to do if it does not.
  enum class Cause {
    unreachable,    ///< No answer, or one that says to come back: a later try may succeed.
    refused,        ///< No access to the model, with the token that was sent or without one.
    no_such_model,  ///< The hub has no such model, revision or file.
    bad_answer,     ///< Not what a hub answers, or other bytes than it announced.
    not_a_model,    ///< What the repository holds cannot be loaded.
  };

  ModelFetchError(Cause cause, const std::string& message) : RuntimeError(message), _cause(cause) {}
  const char* kind() const noexcept override { return "ModelFetchError"; }

  Cause cause() const noexcept { return _cause; }

 private:
  Cause _cause;
};

/// The cache cannot be written to: no right to, or no room.
class TOVANA_API CacheNotWritableError : public RuntimeError {
 public:
  using RuntimeError::RuntimeError;
  const char* kind() const noexcept override { return "CacheNotWritableError"; }
};

}  // namespace tovana::hub
