#include "engine_options.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "failure.h"
#include "option_values.h"
#include "tovana/base/logging.h"
#include "tovana/engines/embedding/backends/http.h"
#include "tovana/engines/embedding/backends/local.h"
#include "tovana/engines/embedding/backends/tfidf.h"
#include "tovana/engines/embedding/sharing/endpoint_key.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::tool {
namespace {

using embedding::APIEmbeddingBackend;
using embedding::EmbeddingBackend;
using embedding::LocalEmbeddingBackend;
using embedding::OpenAIEmbeddingBackend;
using embedding::TFIDFEmbeddingBackend;

/// One value of --backend: how it is made, and which of the other options it takes.
struct BackendKind {
  std::string_view name;
  bool takes_model;
  std::optional<std::string> EngineOptions::*url;  ///< The URL it needs; null if it needs none.
  std::string_view url_option;
  std::unique_ptr<EmbeddingBackend> (*make)(const EngineOptions& options);
};

std::unique_ptr<EmbeddingBackend> make_tfidf(const EngineOptions& options) {
  return std::make_unique<TFIDFEmbeddingBackend>(
      options.dimension.value_or(TFIDFEmbeddingBackend::kDefaultDimension));
}

std::unique_ptr<EmbeddingBackend> make_local(const EngineOptions& options) {
  if (!options.model) return std::make_unique<LocalEmbeddingBackend>();
  return std::make_unique<LocalEmbeddingBackend>(*options.model);
}

/// An endpoint's backend with what was given, and its own defaults for the rest.
template <class Backend>
std::unique_ptr<EmbeddingBackend> make_endpoint(typename Backend::Options backend,
                                                const EngineOptions& options) {
  backend.api_key = embedding::endpoint_key();
  if (options.model) backend.model_name = *options.model;
  if (options.dimension) backend.dimension = *options.dimension;
  return std::make_unique<Backend>(std::move(backend));
}

std::unique_ptr<EmbeddingBackend> make_api(const EngineOptions& options) {
  return make_endpoint<APIEmbeddingBackend>({.api_url = options.api_url.value_or("")}, options);
}

std::unique_ptr<EmbeddingBackend> make_openai(const EngineOptions& options) {
  return make_endpoint<OpenAIEmbeddingBackend>({.base_url = options.base_url.value_or("")},
                                               options);
}

constexpr std::array kBackendKinds = {
    BackendKind{"tfidf", false, nullptr, "", make_tfidf},
    BackendKind{"local", true, nullptr, "", make_local},
    BackendKind{"api", true, &EngineOptions::api_url, "--api-url", make_api},
    BackendKind{"openai", true, &EngineOptions::base_url, "--base-url", make_openai},
};

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

/// A warning with an error attached reports what the command is about to fail with, and its own
/// last line says that better.
void log_what_is_not_thrown(const LogRecord& record) {
  if (!record.error) write_to_standard_error(record);
}

[[noreturn]] void throw_usage(const std::string& problem) {
  throw Failure(ExitStatus::usage, problem + "; see tovana-embed --help");
}

}  // namespace

void add_engine_options(CLI::App& command, EngineOptions& options) {
  const auto set_backend = [&options](const std::string& name) {
    if (std::ranges::find(kBackendKinds, name, &BackendKind::name) == kBackendKinds.end()) {
      throw CLI::ValidationError("--backend",
                                 "takes tfidf, local, openai or api, not \"" + name + "\"");
    }
    options.backend = name;
  };
  command
      .add_option_function<std::string>("--backend", set_backend,
                                        "What makes the vectors:\n"
                                        "tfidf   hashed word weights that need no model (the\n"
                                        "        default)\n"
                                        "local   a sentence-transformers model in this process\n"
                                        "openai  an OpenAI-compatible endpoint, at --base-url\n"
                                        "api     a generic embedding API, at --api-url\n"
                                        "An endpoint's key is read from the environment:\n"
                                        "BRUNE_LLM_EMBEDDING_API_KEY, else BRUNE_LLM_API_KEY")
      ->type_name("NAME");
  command
      .add_option("--base-url", options.base_url, "openai: the URL that /embeddings is appended to")
      ->option_text("URL");
  command.add_option("--api-url", options.api_url, "api: the URL to post to")->option_text("URL");
  command
      .add_option("--model", options.model,
                  "local: a model's name on the hub, which has to be in the\n"
                  "cache, or a directory, ./NAME (all-MiniLM-L6-v2); openai:\n"
                  "the model that is asked for (text-embedding-3-small);\n"
                  "api: what the vectors are named after (api)")
      ->option_text("NAME");
  add_count(command, "--dimension", options.dimension,
            "Numbers in a vector (tfidf: 256). Models and endpoints\n"
            "have their own");
  set_log_level(LogLevel::warning);
  set_log_sink(log_what_is_not_thrown);
  command
      .add_option_function<std::string>("--log-level", set_log_level_named,
                                        "Log messages on stderr from this level up: debug, info\n"
                                        "or warning. By default warnings, but for those that say\n"
                                        "what the command's own last line says")
      ->type_name("LEVEL");
}

std::unique_ptr<EmbeddingBackend> make_backend(const EngineOptions& options) {
  const BackendKind& kind = *std::ranges::find(kBackendKinds, options.backend, &BackendKind::name);
  const std::string subject = "--backend " + options.backend;
  if (options.model && !kind.takes_model) throw_usage(subject + " has no --model");
  for (const BackendKind& other : kBackendKinds) {
    if (other.url == nullptr) continue;
    const bool is_given = (options.*other.url).has_value();
    if (other.url == kind.url && !is_given) {
      throw_usage(subject + " needs " + std::string(kind.url_option));
    }
    if (other.url != kind.url && is_given) {
      throw_usage(subject + " has no " + std::string(other.url_option));
    }
  }
  try {
    return kind.make(options);
  } catch (const ValueError& error) {
    throw_usage(error.what());
  }
}

}  // namespace tovana::tool
