#include "batching_arguments.h"

#include <cstddef>

#include "option_values.h"

namespace tovana::tool {
namespace {

/// More would be a burden to most servers, and each may hold megabytes of vectors.
constexpr std::int64_t kMostConcurrency = 64;

}  // namespace

void add_batching_options(CLI::App& command, BatchingArguments& arguments) {
  add_count(command, "--batch-size", arguments.size,
            "Most texts in one call of the backend (" + std::to_string(kDefaultBatchSize) +
                "); local takes\n"
                "as many as it embeds in a fifth of a second. tfidf takes\n"
                "the whole input as one batch, since its weights depend\n"
                "on the other texts of the batch");
  add_count(command, "--concurrency", arguments.concurrency,
            "Endpoints: up to N requests at once, 64 at most (1), each\n"
            "over a connection that is kept; the results keep their\n"
            "order. Any other backend gets one batch at a time",
            kMostConcurrency);
}

Batching batching_of(const BatchingArguments& arguments, const std::optional<std::string>& prompt) {
  return {.size = static_cast<std::size_t>(arguments.size),
          .concurrency = static_cast<std::size_t>(arguments.concurrency),
          .prompt = prompt};
}

}  // namespace tovana::tool
