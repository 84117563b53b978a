#pragma once

#include "tovana/base/export.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::files {

/// A model's files are damaged, incomplete, or of a kind that does not load: no later try can help
/// before somebody changes them. The message names the file and its fault, in one line.
class TOVANA_API ModelFilesError : public ValueError {
 public:
  using ValueError::ValueError;
  const char* kind() const noexcept override { return "ModelFilesError"; }
};

}  // namespace tovana::files
