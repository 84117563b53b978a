#pragma once

#include "tovana/exceptions/exceptions.h"

/// What a call of the HTTP client fails with.
namespace tovana::http {

/// A call that failed: a status that is not tried again, attempts used up, a deadline spent, a
/// reply that cannot be read, or a request that cannot be sent. The message names the call, what
/// happened in the last attempt, after how many, and what to do where that is known. It is one line
/// and never holds a key.
class HttpFailure : public RuntimeError {
 public:
  using RuntimeError::RuntimeError;
  const char* kind() const noexcept override { return "HttpFailure"; }
};

/// The stop test said stop before the call had its reply. The message goes on after a subject:
/// "stopped before attempt 2 of 3".
class Stopped final : public HttpFailure {
 public:
  using HttpFailure::HttpFailure;
  const char* kind() const noexcept override { return "Stopped"; }
};

}  // namespace tovana::http
