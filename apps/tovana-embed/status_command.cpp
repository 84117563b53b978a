#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "command.h"
#include "engine_arguments.h"
#include "engine_session.h"
#include "output.h"
#include "tovana/engines/embedding/backends/local/model_library.h"
#include "tovana/engines/embedding/backends/local/model_runtime.h"
#include "tovana/engines/embedding/backends/local/precision.h"
#include "tovana/engines/hub/cached_model.h"
#include "tovana/engines/hub/hub_settings.h"
#include "tovana/engines/hub/model_name.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::tool {
namespace {

using embedding::EMBED_PRECISION;
using embedding::EmbeddingStatus;

/// What loads at once is ready by then.
constexpr double kGlanceS = 0.1;

struct StatusArguments {
  EngineArguments engine;
  bool wait = false;
  bool json = false;
};

/// The path that `find` finds, or null where it finds none.
template <class Find>
nlohmann::ordered_json path_or_null(const Find& find) {
  try {
    return find().string();
  } catch (const std::exception&) {  // the status itself says what is wrong
    return nullptr;
  }
}

/// The fields of the status, and what is used. What the model library and its models compute with
/// is null while none is loaded.
std::string json_line(const EmbeddingStatus& status, const EngineArguments& arguments) {
  nlohmann::ordered_json object;
  for (const auto& [name, value] : status.to_dict()) {
    std::visit([&object, &name](const auto& field) { object[name] = field; }, value);
  }
  const auto library = embedding::model_runtime().loaded_library();
  object["runtime"] = nullptr;
  object["kernels"] = nullptr;
  object["library"] = nullptr;
  if (library) {
    object["runtime"] = library->runtime;
    object["kernels"] = library->kernels;
    object["library"] = path_or_null([] { return embedding::model_library_path(); });
  }
  object["precision"] = nullptr;
  if (const auto precision = EMBED_PRECISION.used()) {
    object["precision"] = embedding::precision_name(*precision);
  }
  constexpr std::string_view kLocal = "local:";
  const std::string backend = status.backend.value_or("");
  object["model_folder"] = path_or_null([&] {
    if (!backend.starts_with(kLocal)) throw ValueError("no local model");
    const hub::ModelName name = hub::parse_model_name(backend.substr(kLocal.size()));
    return hub::find_cached_model(name, hub::cache_settings()).directory;
  });
  object["cache"] = path_or_null([] { return hub::cache_settings().root; });
  object["settings"] = path_or_null([&] { return settings_file(arguments).value(); });
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

/// "computed in bfloat16 (native, avx512)"; empty where no model is loaded.
std::string computation() {
  const auto library = embedding::model_runtime().loaded_library();
  const auto precision = EMBED_PRECISION.used();
  if (!library || !precision) return "";
  return "computed in " + std::string(embedding::precision_name(*precision)) + " (" +
         std::string(library->runtime) + ", " + std::string(library->kernels) + ")";
}

/// Of a failure only the reason: the engine's next attempt is one that this process does not live to
/// see. In any other state there is something to add when the backend is not the best one.
std::string sentence(const EmbeddingStatus& status) {
  const bool has_failed = status.state == "unavailable";
  std::string text = "The embedding model ";
  text += has_failed ? "could not be loaded" : status.describe();
  if (status.detail) text += (has_failed ? ": " : "; ") + *status.detail;
  if (status.ready() && !computation().empty()) text += "; " + computation();
  return text + "\n";
}

ExitStatus status(const StatusArguments& arguments, const Interrupts& interrupts) {
  const RunLimits limits(interrupts);
  Output output("-", limits);
  EngineArguments engine_arguments = arguments.engine;
  if (!arguments.wait && !arguments.engine.no_wait && !arguments.engine.wait_s) {
    engine_arguments.wait_s = kGlanceS;
  }
  EngineSession session(engine_arguments, interrupts);
  ExitStatus result = ExitStatus::success;
  try {
    session.wait_ready(limits);
  } catch (const Failure& failure) {
    result = failure.status();
  }
  const EmbeddingStatus now = session.engine().status();
  output.write(arguments.json ? json_line(now, engine_arguments) : sentence(now));
  output.finish();
  return now.ready() ? ExitStatus::success : result;
}

}  // namespace

Command add_status_command(CLI::App& tool) {
  const auto arguments = std::make_shared<StatusArguments>();
  CLI::App& command = *tool.add_subcommand("status", "Say whether the embedding model is ready");
  CLI::Option* const wait = command.add_flag(
      "--wait", arguments->wait, "Wait until the model is ready or its load has failed");
  command.add_flag("--json", arguments->json, "Print an object with the fields of the status");
  add_engine_options(command, arguments->engine);
  wait->excludes("--no-wait");
  command.footer(
      R"(Begins to load the model as every command does, and says how far that has come:
after a tenth of a second, unless --wait, --wait-s or --no-wait says otherwise.
Of a local model that is ready it says what that is computed with; with --json as
"runtime", "kernels" and file ("library") of the model library and "precision" of
its models, null while none is loaded. With --json it also says which folder of a
local model, which model cache and which file of settings are used, null where
there is none.
The exit status is 0 when the model is ready, 75 when it is not or may be later,
and otherwise what a command that embeds would end with.

Examples:
  tovana-embed status
  tovana-embed status --wait --json --backend local)");
  return {&command,
          [arguments](const Interrupts& interrupts) { return status(*arguments, interrupts); }};
}

}  // namespace tovana::tool
