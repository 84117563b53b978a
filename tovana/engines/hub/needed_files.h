#pragma once

#include <optional>
#include <string>

#include "tovana/engines/hub/snapshot.h"

namespace tovana::hub {

struct MissingFile {
  std::string name;
  std::string fault;  ///< "is missing", "is empty": a sentence with the name in front.
};

/// The first file that keeps the snapshot from being a complete model; none when it is one. What
/// its modules.json and its weights' index name is needed too. Of files that are malformed no more
/// is asked: the model library refuses them and says why. Throws as `Snapshot` does.
std::optional<MissingFile> missing_file(const Snapshot& snapshot);

}  // namespace tovana::hub
