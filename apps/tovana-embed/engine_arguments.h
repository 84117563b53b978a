#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "tovana/engines/embedding/backends/local/precision.h"
#include "tovana/engines/embedding/engine/configuration.h"

namespace tovana::tool {

/// What every command is told about the engine that makes its vectors.
struct EngineArguments {
  std::optional<std::string> backend;  ///< Null: what the settings say.
  std::optional<std::string> model;
  std::optional<std::int64_t> dimension;
  std::optional<embedding::Precision> precision;  ///< Null: what the environment says.
  std::optional<std::int64_t>
      usual_dimension;  ///< The command's own, for tfidf without --dimension.
  std::optional<std::string> base_url;
  std::optional<std::string> api_url;
  std::optional<std::string> settings;  ///< Null: the user's file, if there is one.
  // Names of prompts; null: the model's default.
  std::optional<std::string> prompt;       ///< What stands before texts, or the query of a search.
  std::optional<std::string> text_prompt;  ///< Before the texts of a search.
  std::optional<double> wait_s;            ///< Null: for as long as the load goes on.
  bool no_wait = false;
};

/// Adds the options to a command. The log options take effect while the command line is parsed.
void add_engine_options(CLI::App& command, EngineArguments& arguments);

/// Adds --prompt, which `stands_before`: "each text".
void add_prompt_option(CLI::App& command, EngineArguments& arguments,
                       const std::string& stands_before);

/// The file that the settings are read from; null where there is none.
std::optional<std::filesystem::path> settings_file(const EngineArguments& arguments);

/// What the options and the settings ask for. An endpoint's key comes from the environment. Throws
/// Failure: usage for options that do not go together and for a URL that is not complete, no_input
/// and bad_data for a settings file that cannot be read or is malformed, its URL included.
embedding::EngineConfiguration engine_configuration(const EngineArguments& arguments);

}  // namespace tovana::tool
