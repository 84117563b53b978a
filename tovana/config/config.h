#pragma once

#include <optional>
#include <string>

/// The daemon's settings, as far as this component reads them.
namespace tovana {

struct Config {
  struct Daemon {
    /// "auto", or the backend to take: "local", "api", "openai", "tfidf".
    std::string embedding_backend = "auto";
  };
  struct Generation {
    /// An OpenAI-compatible endpoint, and the embedding model to ask it for.
    std::optional<std::string> base_url;
    std::optional<std::string> embedding_model;
  };

  Daemon daemon;
  Generation generation;
};

}  // namespace tovana
