#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "command.h"
#include "failure.h"
#include "output.h"
#include "run_limits.h"
#include "tovana/engines/http/failure.h"
#include "tovana/engines/hub/cached_model.h"
#include "tovana/engines/hub/fetch_errors.h"
#include "tovana/engines/hub/fetch_model.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::tool {
namespace {

struct PullOptions {
  std::string model;
  bool offline = false;
};

hub::ModelName parsed_name(const std::string& text) {
  try {
    return hub::parse_model_name(text);
  } catch (const ValueError& error) {
    throw Failure(ExitStatus::usage, error.what());
  }
}

/// What is cached already is not asked for again.
hub::CachedModel find_or_fetch(const PullOptions& options, const RunLimits& limits) {
  const hub::ModelName name = parsed_name(options.model);
  try {
    const hub::CacheSettings cache = hub::cache_settings();
    try {
      return hub::find_cached_model(name, cache);
    } catch (const hub::ModelNotCachedError&) {
      if (options.offline || cache.is_offline) throw;
    }
    return hub::fetch_model(name, cache, {.hub = hub::hub_settings(), .should_stop = [&limits] {
                                            return limits.should_stop();
                                          }});
  } catch (const http::Stopped&) {
    throw Interrupted();
  } catch (const hub::CacheNotWritableError& error) {
    throw Failure(ExitStatus::cannot_write, error.what());
  } catch (const Error& error) {  // one of ours says itself what and where
    throw Failure(ExitStatus::call_failed, error.what());
  }
}

ExitStatus pull(const PullOptions& options, const Interrupts& interrupts) {
  const RunLimits limits(interrupts);
  Output output("-", limits);
  output.write(find_or_fetch(options, limits).directory.string() + "\n");
  output.finish();
  return ExitStatus::success;
}

}  // namespace

Command add_pull_command(CLI::App& tool) {
  const auto options = std::make_shared<PullOptions>();
  CLI::App& command = *tool.add_subcommand("pull", "Fetch a model into the cache");
  command.add_option("MODEL", options->model, "The model's name on the hub")
      ->option_text(" ")
      ->required();
  command.add_flag("--offline", options->offline,
                   "Make no request: only check that the model is there");
  command.footer(
      R"(Prints the model's folder. A model that is in the cache is not fetched again, and
a fetch that was broken off goes on where it ended. The cache is the one of
Python's libraries: SENTENCE_TRANSFORMERS_HOME, HF_HUB_CACHE, HF_HOME/hub, else
~/.cache/huggingface/hub. HF_TOKEN gives access to private and gated models,
HF_ENDPOINT names another hub.

Examples:
  tovana-embed pull all-MiniLM-L6-v2
  tovana-embed pull --offline organisation/model)");
  return {&command, [options](const Interrupts& interrupts) { return pull(*options, interrupts); }};
}

}  // namespace tovana::tool
