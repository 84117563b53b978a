#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "tovana/files/file_handle.h"
#include "tovana/files/model_directory.h"

namespace tovana::hub {

/// How much has to be known of a file.
enum class Need {
  required,   ///< It is there.
  settled,    ///< It is there, or it is known that the repository has none.
  if_listed,  ///< It is there unless no listing names it.
};

/// The files of one commit of a repository, as far as they are on this machine.
class AvailableFiles {
 public:
  virtual ~AvailableFiles() = default;
  AvailableFiles(const AvailableFiles&) = delete;
  AvailableFiles& operator=(const AvailableFiles&) = delete;

  /// What keeps the file `name` from being as much there as it is needed; none when it is. Throws
  /// ModelFilesError for a name that leads out of the model.
  virtual std::optional<std::string> fault(std::string_view name, Need need) const = 0;

  /// Whether the repository is known to have the file, here or not.
  virtual bool is_listed(std::string_view name) const = 0;

  /// A file as a message names it.
  virtual std::string shown(std::string_view name) const;

  /// Opens a file that is there, by the rules of `files::ModelDirectory`.
  std::optional<files::FileHandle> open(std::string_view name) const;

  /// Throws ModelFilesError, naming file and fault, when the file is there but is no JSON.
  virtual std::optional<nlohmann::json> read_json(std::string_view name) const;

 protected:
  AvailableFiles() = default;

 private:
  /// The folder that holds those that are there, and the name that a file has in it.
  virtual files::ModelDirectory _model_directory() const = 0;
  virtual std::string _place(std::string_view name) const { return std::string(name); }
};

struct MissingFile {
  std::string name;
  std::string fault;  ///< "is missing", "is empty": a sentence with the name in front.
};

struct NeededFiles {
  std::vector<MissingFile> missing;  ///< In the order in which they matter.
  std::vector<std::string> present;
};

/// Which files the model needs, as far as it can be told; it is complete when none is missing. What
/// modules.json and an index of weights name is needed too, once they can be read, so of a model
/// that is being fetched this has to be asked again; the small files that decide whether the model
/// can be loaded at all are asked for before its weights.
///
/// How much a model may ask for is bounded. Throws ModelFilesError when it asks for more, when
/// modules.json is no list of modules, and for an encoder that does not load; and what
/// `AvailableFiles` throws.
NeededFiles needed_files(const AvailableFiles& files);

/// Throws ModelFilesError for the first of the files, all of which are there, that is named as JSON
/// or a tokenizer and is none, holds weights and is not as long as its header says, or is not where
/// a model's files may be.
void check_contents(const AvailableFiles& files, const std::vector<std::string>& names);

}  // namespace tovana::hub
