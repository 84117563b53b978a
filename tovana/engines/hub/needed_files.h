#pragma once

#include <string>
#include <vector>

#include "tovana/engines/hub/model_files.h"

namespace tovana::hub {

struct MissingFile {
  std::string name;
  std::string fault;  ///< "is missing", "is empty": a sentence with the name in front.
};

/// What keeps the files from being a complete model, as far as it can be told; nothing when they
/// are one. What modules.json and an index of weights name is needed too, once they can be read, so
/// of a model that is being fetched this has to be asked again. Of files that are malformed no more
/// is asked: the model library refuses them and says why. Throws as `ModelFiles` does.
std::vector<MissingFile> missing_files(const ModelFiles& files);

}  // namespace tovana::hub
