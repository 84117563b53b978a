#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "tovana/engines/embedding/backends/backend.h"
#include "tovana/engines/embedding/backends/tfidf.h"

namespace tovana::tool {

/// What every command is told about the backend that makes its vectors.
struct EngineOptions {
  std::string backend = "tfidf";
  std::int64_t dimension = embedding::TFIDFEmbeddingBackend::kDefaultDimension;
};

/// Adds the options to a command. --log-level takes effect while the command line is parsed.
void add_engine_options(CLI::App& command, EngineOptions& options);

/// The backend that the options ask for; the one place where the tool makes one.
std::unique_ptr<embedding::EmbeddingBackend> make_backend(const EngineOptions& options);

}  // namespace tovana::tool
