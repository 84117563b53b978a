#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "embedding_call.h"

namespace tovana::tool {

/// How a command's texts are to go to the backend.
struct BatchingArguments {
  std::int64_t size = kDefaultBatchSize;
  std::int64_t concurrency = 1;
};

void add_batching_options(CLI::App& command, BatchingArguments& arguments);

/// `prompt` is the name of what stands before the texts; null: the model's default.
Batching batching_of(const BatchingArguments& arguments, const std::optional<std::string>& prompt);

}  // namespace tovana::tool
