#pragma once

#include "tovana/base/export.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {

/// A call was asked to stop, by its stop test, before it had the vectors. Not a failure, and never
/// logged.
class TOVANA_API EmbeddingStopped final : public RuntimeError {
 public:
  using RuntimeError::RuntimeError;
  const char* kind() const noexcept override { return "EmbeddingStopped"; }
};

}  // namespace tovana::embedding
