#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tovana/base/environment.h"
#include "tovana/engines/embedding/backends/local/model_library_abi.h"
#include "tovana/engines/embedding/backends/local/model_library_errors.h"
#include "tovana/engines/embedding/backends/local/model_runtime.h"
#include "tovana/engines/embedding/backends/local/precision.h"

/// The model library: a shared object beside this component, which runs the models and is opened
/// only when a local model is wanted.
namespace tovana::embedding {

/// The path of the model library's file, when it is not to be looked for beside the component. An
/// absolute one; empty counts as not set.
inline constexpr const char* MODEL_LIBRARY_ENV = "TOVANA_MODEL_LIBRARY";

/// Where the model library's file is: at the path in `MODEL_LIBRARY_ENV`, else beside the library
/// that holds this component, else beside the executable, else where it is installed: in `tovana/`
/// of the library folder, which is looked for from those two, along the RUNPATH of the file that
/// holds this component, and at the path that the build was told. Never in the working directory,
/// nor along LD_LIBRARY_PATH.
///
/// Throws ModelLibraryNotInstalled when the variable is not set and there is no such file;
/// EnvironmentVariableError for a relative path in it; ModelLibraryError when the path in it leads
/// nowhere, or when any user may write to the file, since its code is about to run in this process.
/// A null `environment` is the process's own.
std::filesystem::path model_library_path(const Environment* environment = nullptr);

/// The model library, behind its table of C functions.
///
/// Its failures come out as ModelFilesError (model files that cannot serve), std::bad_alloc, or
/// RuntimeError. Threads: any operation on any number of threads at once. Lives as long as the
/// process: models refer to it.
class ModelLibrary final : public TorchRuntime {
 public:
  /// Opens the file at an absolute path, for good: it is never closed. Blocks while its code, and
  /// that of the libraries it works with, are loaded. Throws ModelLibraryError, naming the path,
  /// when one of them cannot be loaded, or when it is no model library of this version. After that
  /// the file can be tried again; but one that was of another version, and has been replaced since,
  /// may be seen as it was until the process starts anew.
  static std::unique_ptr<ModelLibrary> open(const std::filesystem::path& path);

  ModelLibraryDescription describe() const noexcept;

  /// Whether models can be loaded in that precision on this processor; all can in float32.
  bool supports(Precision precision) const noexcept;

  std::int64_t get_num_threads() override;
  void set_num_threads(std::int64_t count) override;

  /// Whether a model could be loaded from a directory, by all but the numbers of its weights.
  void check_model(const std::filesystem::path& directory,
                   const std::filesystem::path& allowed_root) const;

  /// Loads a model from a directory, reading no file outside `allowed_root`, both absolute, in a
  /// precision that is supported.
  std::unique_ptr<const LocalModel> load_model(const std::filesystem::path& directory,
                                               const std::filesystem::path& allowed_root,
                                               Precision precision = Precision::float32) const;

 private:
  explicit ModelLibrary(const model_library_abi::Table& table) : _table(table) {}

  const model_library_abi::Table& _table;
};

}  // namespace tovana::embedding
