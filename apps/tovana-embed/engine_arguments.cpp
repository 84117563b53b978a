#include "engine_arguments.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "failure.h"
#include "option_values.h"
#include "tovana/base/logging.h"
#include "tovana/config/config_file.h"
#include "tovana/engines/embedding/backends/endpoint/http.h"
#include "tovana/engines/embedding/engine/configuration_values.h"
#include "tovana/engines/embedding/settings.h"
#include "tovana/engines/embedding/sharing/engine_config.h"
#include "tovana/engines/http/url.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::tool {
namespace {

using embedding::EngineConfiguration;

/// One value of --backend, and which of the other options it takes.
struct BackendKind {
  std::string_view name;
  bool takes_model;
  bool takes_precision;
  bool takes_prompt;
  bool takes_api_url;
  bool takes_base_url;
};

constexpr std::array kBackendKinds = {
    BackendKind{"auto", true, true, true, true, false},
    BackendKind{"local", true, true, true, false, false},
    BackendKind{"api", false, false, false, true, false},
    BackendKind{"openai", true, false, false, false, true},
    BackendKind{"tfidf", false, false, false, false, false},
};

/// The kind of a name; of the settings' names, any that is not known stands for auto.
const BackendKind& kind_of(std::string_view name) {
  const auto* const found = std::ranges::find(kBackendKinds, name, &BackendKind::name);
  return found != kBackendKinds.end() ? *found : kBackendKinds.front();
}

void set_log_level_named(const std::string& name) {
  if (name == "debug") {
    set_log_level(LogLevel::debug);
  } else if (name == "info") {
    set_log_level(LogLevel::info);
  } else if (name == "warning") {
    set_log_level(LogLevel::warning);
  } else {
    throw CLI::ValidationError("--log-level", "takes debug, info or warning, not \"" + name + "\"");
  }
  set_log_sink({});  // whoever asks for the log gets all of it
}

/// Left out is what the command says itself, and better. The engine and its backends warn of a load
/// or a call that failed, which the command is about to end with, and of a backend that gave way.
void log_what_is_not_reported(const LogRecord& record) {
  if (record.logger != "engines.embedding") write_to_standard_error(record);
}

[[noreturn]] void throw_usage(const std::string& problem) {
  throw Failure(ExitStatus::usage, problem + "; see tovana-embed --help");
}

Config read_settings(const std::filesystem::path& file) {
  try {
    return load_config(file);
  } catch (const ValueError& error) {
    throw Failure(ExitStatus::bad_data, error.what());
  } catch (const RuntimeError& error) {
    throw Failure(ExitStatus::no_input, error.what());
  }
}

void check_options(const EngineArguments& arguments, const BackendKind& kind) {
  const std::string subject = "the backend " + std::string(kind.name);
  if (arguments.model && !kind.takes_model) throw_usage(subject + " has no --model");
  if (arguments.precision && !kind.takes_precision)
    throw_usage(subject + " has no --precision; only local models have");
  if (!kind.takes_prompt && (arguments.prompt || arguments.text_prompt))
    throw_usage(subject + " has no prompts; only local models have");
  if (arguments.api_url && !kind.takes_api_url) throw_usage(subject + " has no --api-url");
  if (arguments.base_url && !kind.takes_base_url) throw_usage(subject + " has no --base-url");
  if (arguments.dimension && kind.name == "local") {
    throw_usage(subject + " has no --dimension: its models have their own");
  }
  if (arguments.no_wait && arguments.wait_s)
    throw_usage("--no-wait and --wait-s contradict each other");
}

/// What is wrong with a URL that the engine would refuse again and again, if anything is. `name` is
/// what the user calls it.
std::optional<std::string> problem_of_url(const EngineConfiguration& config, const std::string& key,
                                          const std::string& name) {
  const std::string url = embedding::text_value(config, key).value_or("");
  if (url.empty()) return std::nullopt;
  try {
    embedding::_http_url(url, name);
  } catch (const ValueError& error) {
    return error.what();
  }
  if (http::names_host(url) && http::url_origin(url)) return std::nullopt;
  return name + " is no complete URL, as http://host:8080/v1 is: '" + http::masked_url(url) + "'";
}

/// A name is never a folder's, whatever lies in the working directory; whoever typed one may think
/// otherwise.
void hint_at_folder(const std::string& model) {
  std::error_code error;
  const std::filesystem::path path(model);
  if (path.is_absolute() || model.starts_with("./") || model.starts_with("../")) return;
  if (!std::filesystem::is_directory(path, error)) return;
  report("warning: --model " + model + " is a name on the hub; the folder here is --model ./" +
         model);
}

}  // namespace

void add_engine_options(CLI::App& command, EngineArguments& arguments) {
  const auto set_backend = [&arguments](const std::string& name) {
    if (kind_of(name).name != name) {
      throw CLI::ValidationError("--backend",
                                 "takes auto, local, api, openai or tfidf, not \"" + name + "\"");
    }
    arguments.backend = name;
  };
  command
      .add_option_function<std::string>("--backend", set_backend,
                                        "What makes the vectors:\n"
                                        "auto    the best of local, api (with --api-url) and\n"
                                        "        tfidf that is there (the default, unless the\n"
                                        "        settings name another)\n"
                                        "local   a sentence-transformers model in this process\n"
                                        "api     a generic embedding API, at --api-url\n"
                                        "openai  an OpenAI-compatible endpoint, at --base-url\n"
                                        "tfidf   hashed word weights that need no model\n"
                                        "An endpoint's key is read from the environment:\n"
                                        "BRUNE_LLM_EMBEDDING_API_KEY, else BRUNE_LLM_API_KEY")
      ->type_name("NAME");
  command
      .add_option("--model", arguments.model,
                  std::string("local: a model's name on the hub, or a directory,\n"
                              "./NAME (") +
                      embedding::DEFAULT_LOCAL_MODEL +
                      "); openai: the model that is\n"
                      "asked for (" +
                      embedding::DEFAULT_OPENAI_MODEL + ")")
      ->option_text("NAME");
  const auto set_precision = [&arguments](const std::string& name) {
    arguments.precision = embedding::precision_named(name);
    if (!arguments.precision) {
      throw CLI::ValidationError("--precision", "takes float32 or bfloat16, not \"" + name + "\"");
    }
  };
  command
      .add_option_function<std::string>("--precision", set_precision,
                                        "local: what the model computes in, float32 or\n"
                                        "bfloat16, which is faster on processors with\n"
                                        "AVX512_BF16 and the same as float32 elsewhere\n"
                                        "(TOVANA_EMBED_PRECISION, else float32)")
      ->type_name("NAME");
  add_count(command, "--dimension", arguments.dimension,
            "Numbers in a vector (tfidf: " + std::to_string(embedding::DEFAULT_TFIDF_DIMENSION) +
                "). Models and endpoints\n"
                "have their own");
  command
      .add_option("--base-url", arguments.base_url,
                  "openai: the URL that /embeddings is appended to")
      ->option_text("URL");
  command.add_option("--api-url", arguments.api_url, "api: the URL to post to")->option_text("URL");
  command
      .add_option("--settings", arguments.settings,
                  "The daemon's settings, a TOML file\n"
                  "($XDG_CONFIG_HOME/tovana/settings.toml, if it is there)")
      ->option_text("FILE");
  add_seconds(command, "--wait-s", arguments.wait_s,
              "Wait at most S seconds for the model (as long as its\n"
              "load goes on; one that fails ends the wait)");
  command.add_flag("--no-wait", arguments.no_wait,
                   "Do not wait for the model: the same as --wait-s 0");
  set_log_level(LogLevel::warning);
  set_log_sink(log_what_is_not_reported);
  command
      .add_option_function<std::string>("--log-level", set_log_level_named,
                                        "Log messages on stderr from this level up: debug, info\n"
                                        "or warning. By default warnings, but for those that say\n"
                                        "what the command's own last line says")
      ->type_name("LEVEL");
}

void add_prompt_option(CLI::App& command, EngineArguments& arguments,
                       const std::string& stands_before) {
  command
      .add_option("--prompt", arguments.prompt,
                  "local: the prompt of the model that stands before\n" + stands_before +
                      ", by its name: \"query\" (the model's default)")
      ->option_text("NAME");
}

std::optional<std::filesystem::path> settings_file(const EngineArguments& arguments) {
  if (arguments.settings) return arguments.settings;
  const std::optional<std::filesystem::path> file = user_config_file();
  std::error_code error;
  return file && std::filesystem::exists(*file, error) ? file : std::nullopt;
}

EngineConfiguration engine_configuration(const EngineArguments& arguments) {
  const std::optional<std::filesystem::path> file = settings_file(arguments);
  Config settings = file ? read_settings(*file) : Config();
  if (arguments.backend) settings.daemon.embedding_backend = *arguments.backend;
  const BackendKind& kind = kind_of(settings.daemon.embedding_backend);
  if (kind.name != settings.daemon.embedding_backend) {
    report("warning: " + file->string() + ": no embedding_backend is called \"" +
           settings.daemon.embedding_backend + "\", so it counts as auto");
  }
  check_options(arguments, kind);
  EngineConfiguration config = embedding::engine_config(settings);
  if (file && !arguments.base_url) {
    const auto problem =
        problem_of_url(config, "base_url", file->string() + ": generation.base_url");
    if (problem) throw Failure(ExitStatus::bad_data, *problem);
  }
  if (arguments.base_url) config["base_url"] = *arguments.base_url;
  if (arguments.api_url) config["api_url"] = *arguments.api_url;
  if (arguments.model) {
    config["model_name"] = *arguments.model;
    if (kind.takes_prompt) hint_at_folder(*arguments.model);
  }
  const auto dimension = arguments.dimension ? arguments.dimension : arguments.usual_dimension;
  if (dimension) config["dimension"] = *dimension;
  if (config.contains("api_url")) {
    if (const auto key = embedding::endpoint_key()) config["api_key"] = *key;
  }
  if (const auto problem = problem_of_url(config, "api_url", "--api-url")) throw_usage(*problem);
  if (const auto problem = problem_of_url(config, "base_url", "--base-url")) throw_usage(*problem);
  // Left to the engine, an endpoint that was asked for without its URL would become tfidf.
  if (arguments.backend == "api" && !arguments.api_url)
    throw_usage("--backend api needs --api-url");
  if (arguments.backend == "openai" &&
      embedding::text_value(config, "base_url").value_or("").empty()) {
    throw_usage("--backend openai needs --base-url");
  }
  return config;
}

}  // namespace tovana::tool
