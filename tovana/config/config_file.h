#pragma once

#include <filesystem>
#include <optional>

#include "tovana/base/environment.h"
#include "tovana/config/config.h"

/// The file that the daemon's settings are kept in.
namespace tovana {

/// The settings in a TOML file:
///
///     [daemon]
///     embedding_backend = "openai"
///     [generation]
///     base_url = "http://localhost:8080/v1"
///     embedding_model = "nomic-embed-text"
///
/// What is missing keeps its default; sections and keys of other components are passed over. Throws
/// RuntimeError when the file cannot be read, and ValueError, with the file, the line and what to
/// write instead, when it is not TOML or a value is not a text.
Config load_config(const std::filesystem::path& file);

/// Where the user's settings are kept: `$XDG_CONFIG_HOME/tovana/settings.toml`, by default under
/// `~/.config`. Null when neither variable says where that is. The file need not exist. A null
/// `environment` is the process's own.
std::optional<std::filesystem::path> user_config_file(const Environment* environment = nullptr);

}  // namespace tovana
