#pragma once

#include "tovana/base/export.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {

/// There is no model library on this machine. One that is there and cannot be loaded is another
/// failure, and so is a path in the variable that leads nowhere.
class TOVANA_API ModelLibraryNotInstalled final : public RuntimeError {
 public:
  ModelLibraryNotInstalled() : RuntimeError("sentence-transformers is not installed") {}
  const char* kind() const noexcept override { return "ModelLibraryNotInstalled"; }
};

/// The model library is there and cannot be used, or the variable that names it leads nowhere. The
/// message names the file and the cause.
class TOVANA_API ModelLibraryError final : public RuntimeError {
 public:
  using RuntimeError::RuntimeError;
  const char* kind() const noexcept override { return "ModelLibraryError"; }
};

}  // namespace tovana::embedding
