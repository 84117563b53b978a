#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "command.h"
#include "failure.h"
#include "load_failure.h"
#include "output.h"
#include "run_limits.h"
#include "tovana/engines/embedding/backends/local/model_library.h"
#include "tovana/engines/embedding/backends/local/model_runtime.h"
#include "tovana/engines/http/failure.h"
#include "tovana/engines/hub/fetch_errors.h"
#include "tovana/engines/hub/fetch_model.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::tool {
namespace {

struct PullArguments {
  std::string model;
  std::optional<std::string> revision;
  bool offline = false;
  bool refresh = false;
};

hub::ModelName parsed_name(const PullArguments& arguments) {
  try {
    return arguments.revision ? hub::parse_model_name(arguments.model, *arguments.revision)
                              : hub::parse_model_name(arguments.model);
  } catch (const ValueError& error) {
    throw Failure(ExitStatus::usage, error.what());
  }
}

/// What is there in whole is not asked for again, and what is damaged is.
hub::CachedModel find_or_fetch(const PullArguments& arguments, const RunLimits& limits) {
  const hub::ModelName name = parsed_name(arguments);
  const hub::CacheSettings cache = hub::cache_settings();
  if (arguments.refresh && name.directory) {
    throw Failure(ExitStatus::usage, "a folder is not fetched: leave out --refresh");
  }
  if (arguments.refresh && cache.is_offline()) {
    throw Failure(ExitStatus::call_failed, cache.offline_variable +
                                               " forbids asking the hub: unset it, or leave out "
                                               "--refresh");
  }
  const auto should_stop = [&limits] { return limits.should_stop(); };
  if (arguments.refresh) {
    return hub::fetch_model(name, cache, {.hub = hub::hub_settings(), .should_stop = should_stop});
  }
  return hub::find_or_fetch_model(
      name, cache,
      {.local_files_only = arguments.offline,
       .on_damage =
           [](const std::string& fault) { report(fault + "; fetching what is damaged again"); },
       .should_stop = should_stop});
}

hub::CachedModel pulled(const PullArguments& arguments, const RunLimits& limits) {
  try {
    return find_or_fetch(arguments, limits);
  } catch (const http::Stopped&) {
    throw Interrupted();
  } catch (const hub::ModelFetchError& error) {
    throw Failure(exit_status(error.cause()), error.what());
  } catch (const hub::CacheNotWritableError& error) {
    throw Failure(ExitStatus::cannot_write, error.what());
  } catch (const ValueError& error) {  // a model's files, or a variable of the environment
    throw Failure(ExitStatus::bad_data, error.what());
  } catch (const Error& error) {  // one of ours says itself what and where
    throw Failure(ExitStatus::call_failed, error.what());
  }
}

/// Has the model library say whether it could load the model, where there is one to ask.
void check_loadable(const PullArguments& arguments, const hub::CachedModel& model) {
  embedding::ModelRuntime& runtime = embedding::model_runtime();
  try {
    runtime.load_library();
    runtime.check_model(model.directory, model.allowed_root);
  } catch (const embedding::ModelLibraryNotInstalled&) {
    return;
  } catch (const ValueError& error) {  // as those of `pulled`
    throw Failure(ExitStatus::bad_data, error.what());
  } catch (const Error& error) {
    throw Failure(ExitStatus::call_failed,
                  "the files of the model are in " + model.directory.string() +
                      ", but nothing can tell whether it loads: " + error.what());
  }
  if (const auto library = runtime.loaded_library()) {
    report(arguments.model + " can be loaded (" + std::string(library->runtime) + ", " +
           std::string(library->kernels) + ")");
  }
}

ExitStatus pull(const PullArguments& arguments, const Interrupts& interrupts) {
  const RunLimits limits(interrupts);
  Output output("-", limits);
  const hub::CachedModel model = pulled(arguments, limits);
  check_loadable(arguments, model);
  output.write(model.directory.string() + "\n");
  output.finish();
  return ExitStatus::success;
}

}  // namespace

Command add_pull_command(CLI::App& tool) {
  const auto arguments = std::make_shared<PullArguments>();
  CLI::App& command = *tool.add_subcommand("pull", "Fetch a model into the cache");
  command.add_option("MODEL", arguments->model, "The model's name on the hub")
      ->option_text(" ")
      ->required();
  command.add_option("--revision", arguments->revision, "A branch, tag or commit; default: main")
      ->option_text("REV");
  CLI::Option* const refresh = command.add_flag(
      "--refresh", arguments->refresh, "Ask the hub for the newest commit of the revision");
  command.add_flag("--offline", arguments->offline, "Make no request: only check what is there")
      ->excludes(refresh);
  command.footer(
      R"(Prints the model's folder, once all that it needs is there and can be loaded. The
files of a model that is in the cache are checked, by the hashes that the cache
names them by; only what is missing or damaged is fetched, and a fetch that was
broken off goes on where it ended. MODEL may also be a folder, to be checked. The
local model library, where it is installed, says whether it can load the model.

The cache is the one of Python's libraries: SENTENCE_TRANSFORMERS_HOME,
HF_HUB_CACHE, HF_HOME/hub, else ~/.cache/huggingface/hub. HF_TOKEN gives access to
private and gated models, HF_ENDPOINT names another hub, HF_HUB_OFFLINE forbids
every request.

Exit status: 0 the model is there; 65 it is damaged, incomplete or of a kind that
does not load, or the folder does not exist; 69 it cannot be had: there is none, no
access to it, or it is not in the cache and may not be fetched; or the model library
cannot be used; 74 the cache cannot be written to; 75 the hub cannot be reached: try
again later.

Examples:
  tovana-embed pull all-MiniLM-L6-v2
  tovana-embed pull --refresh all-MiniLM-L6-v2
  tovana-embed pull --revision v1.0 organisation/model
  tovana-embed pull --offline ./my-model)");
  return {&command,
          [arguments](const Interrupts& interrupts) { return pull(*arguments, interrupts); }};
}

}  // namespace tovana::tool
