#pragma once

#include <filesystem>
#include <string>

#include "tovana/base/environment.h"

/// What the environment says of the hub and of the cache of its files. The variables are those of
/// other programs that use the hub, so that a model is kept once. An empty variable counts as not
/// set.
namespace tovana::hub {

/// Where models are kept on this machine, and whether others may be asked for them.
struct CacheSettings {
  /// The folder that holds models--ORGANISATION--NAME; absolute, need not exist.
  std::filesystem::path root;
  /// The variable that says that no request may be made; empty when none does.
  std::string offline_variable = {};
  /// Snapshots may be made of symbolic links; otherwise of the files themselves.
  bool has_links = true;

  bool is_offline() const noexcept { return !offline_variable.empty(); }
};

/// The settings that `environment` (null: the process's own) asks for. The root is the first one set
/// of SENTENCE_TRANSFORMERS_HOME, HF_HUB_CACHE, HUGGINGFACE_HUB_CACHE, $HF_HOME/hub,
/// $XDG_CACHE_HOME/huggingface/hub, ~/.cache/huggingface/hub; offline says HF_HUB_OFFLINE or, where
/// that is not set, TRANSFORMERS_OFFLINE (1, on, yes, true); HF_HUB_DISABLE_SYMLINKS does without
/// links.
///
/// A leading "~/" is the home folder: HOME, else that of the user's account. $NAME and ${NAME} are
/// expanded in all but the first variable; of a variable that is not set they stay as they are.
/// Throws RuntimeError when the home folder is needed and unknown; ValueError for a relative path
/// where there is no working directory.
CacheSettings cache_settings(const Environment* environment = nullptr);

/// Which hub is asked, and as whom.
struct HubSettings {
  /// An http or https URL without a trailing slash.
  std::string endpoint = "https://huggingface.co";
  /// Sent as a bearer token to the endpoint's origin and nowhere else; empty: none.
  std::string token = {};
  /// Seconds without a byte that fail a request for something about a model, and for a file.
  double metadata_timeout_s = 10;
  double download_timeout_s = 10;
};

/// The settings that `environment` (null: the process's own) asks for: HF_ENDPOINT; HF_TOKEN, else
/// HUGGING_FACE_HUB_TOKEN, else the content of the file HF_TOKEN_PATH ($HF_HOME/token, where logging
/// in with those programs leaves it), none of them when HF_HUB_DISABLE_IMPLICIT_TOKEN is true;
/// HF_HUB_ETAG_TIMEOUT and HF_HUB_DOWNLOAD_TIMEOUT in seconds. A file that cannot be read counts as
/// absent.
///
/// Throws EnvironmentVariableError for an endpoint that is no http or https URL and a timeout that is
/// no number above 0.
HubSettings hub_settings(const Environment* environment = nullptr);

}  // namespace tovana::hub
