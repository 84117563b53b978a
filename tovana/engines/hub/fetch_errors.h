#pragma once

#include "tovana/exceptions/exceptions.h"

/// What fetching a model fails with. The messages are one line each: which model, from where, what
/// happened, what to do; never with a token in them.
namespace tovana::hub {

/// The hub cannot be reached, refuses, has no such model, or sent something else than it announced.
class ModelFetchError : public RuntimeError {
 public:
  using RuntimeError::RuntimeError;
  const char* kind() const noexcept override { return "ModelFetchError"; }
};

/// The cache cannot be written to: no right to, or no room.
class CacheNotWritableError : public RuntimeError {
 public:
  using RuntimeError::RuntimeError;
  const char* kind() const noexcept override { return "CacheNotWritableError"; }
};

}  // namespace tovana::hub
