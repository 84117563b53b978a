#pragma once

#include <filesystem>
#include <string>

#include "tovana/engines/hub/fetch_errors.h"
#include "tovana/engines/hub/hub_settings.h"
#include "tovana/engines/hub/model_name.h"

/// Models on this machine: folders of somebody's own, and the hub's cache, which other programs
/// write as well. Nothing here makes a request or writes a byte, so a cache that is read-only, or
/// in use by others, will do.
namespace tovana::hub {

/// A model whose files are all there.
struct CachedModel {
  /// The folder with the model's files; absolute.
  std::filesystem::path directory;
  /// Where links in that folder may lead: for a snapshot, which consists of links, the cache's root
  /// or, where the user has linked the model's folder to another place, that place
  /// (trusted_folder); else the folder itself.
  std::filesystem::path allowed_root;
  /// The repository and its commit; empty for a folder that is not found by a repository's name.
  std::string repo_id;
  std::string commit;
};

/// Finds a model by looking at the disk only.
///
/// In the cache, one snapshot is looked at: that of the revision's commit. It counts as cached when
/// every file that the model needs is there, not empty, and as long as a listing of the commit
/// says, if there is one. Of an optional file that decides what the vectors are (which modules
/// there are, how they are configured) it has to be known that the repository has none, from the
/// mark that a fetch leaves or from the listing: a cache that was filled only in part must not be
/// taken for a simpler model.
///
/// Throws ModelNotCachedError, in one line, with the model, the cache's root, what is missing, and
/// what to do; ModelFilesError for a folder that does not exist, a file in place of a folder, and
/// files of the cache that are malformed, lead out of it, or are of a kind that does not load.
CachedModel find_cached_model(const ModelName& name, const CacheSettings& settings);

/// Looks closely at a model that has been found: whether all that it needs is there, JSON where it
/// is named so, of an encoder that loads, and whole: in a cache what the hub had, by the hashes that
/// the blobs are named by, elsewhere as long as the weights' headers say. Reads all of it, and so takes as long as that. Throws ModelFilesError,
/// naming the file and its fault.
void check_model(const CachedModel& model);

}  // namespace tovana::hub
