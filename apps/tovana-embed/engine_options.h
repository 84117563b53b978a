#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "tovana/engines/embedding/backends/backend.h"

namespace tovana::tool {

/// What every command is told about the backend that makes its vectors.
struct EngineOptions {
  std::string backend = "tfidf";
  std::optional<std::string> model;
  std::optional<std::int64_t> dimension;
  std::optional<std::string> base_url;
  std::optional<std::string> api_url;
};

/// Adds the options to a command. The log options take effect while the command line is parsed.
void add_engine_options(CLI::App& command, EngineOptions& options);

/// The backend that the options ask for; the one place where the tool makes one. An endpoint's key
/// comes from the environment. Throws Failure (usage) for options that make no backend.
std::unique_ptr<embedding::EmbeddingBackend> make_backend(const EngineOptions& options);

}  // namespace tovana::tool
