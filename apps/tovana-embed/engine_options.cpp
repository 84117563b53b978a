#include "engine_options.h"

#include "option_values.h"
#include "tovana/base/logging.h"

namespace tovana::tool {
namespace {

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
}

}  // namespace

void add_engine_options(CLI::App& command, EngineOptions& options) {
  const auto set_backend = [&options](const std::string& name) {
    if (name != "tfidf") {
      throw CLI::ValidationError("--backend", "this build offers tfidf, not \"" + name + "\"");
    }
    options.backend = name;
  };
  command
      .add_option_function<std::string>("--backend", set_backend,
                                        "What makes the vectors: tfidf, hashed word weights that\n"
                                        "need no model (the default)")
      ->type_name("NAME");
  add_count(command, "--dimension", options.dimension, "Numbers in a vector (256)");
  set_log_level(LogLevel::warning);
  command
      .add_option_function<std::string>("--log-level", set_log_level_named,
                                        "Log messages on stderr from this level up: debug, info\n"
                                        "or warning (the default)")
      ->type_name("LEVEL");
}

std::unique_ptr<embedding::EmbeddingBackend> make_backend(const EngineOptions& options) {
  return std::make_unique<embedding::TFIDFEmbeddingBackend>(options.dimension);
}

}  // namespace tovana::tool
