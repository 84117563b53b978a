#pragma once

#include "tovana/base/environment.h"
#include "tovana/engines/embedding/backends/local/local.h"
#include "tovana/engines/embedding/backends/local/model_runtime.h"
#include "tovana/engines/embedding/backends/local/torch_threads.h"

namespace tovana::embedding {

/// Each has to outlive the backend; null is the process's own.
struct LocalEmbeddingBackend::Surroundings {
  ModelRuntime* runtime = nullptr;
  TorchThreads* threads = nullptr;
  const Environment* environment = nullptr;  ///< Where the thread bound is read.
};

}  // namespace tovana::embedding
