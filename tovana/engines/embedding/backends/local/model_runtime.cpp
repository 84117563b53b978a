#include "tovana/engines/embedding/backends/local/model_runtime.h"

#include <atomic>

#include "tovana/engines/embedding/backends/local/model_library.h"
#include "tovana/engines/hub/fetch_model.h"

namespace tovana::embedding {
namespace {

/// The folder of a model, which is fetched if it may be and has to be.
hub::CachedModel find_model(const std::string& model_name, bool local_files_only) {
  const hub::CacheSettings cache = hub::cache_settings();
  return hub::find_or_fetch_model(hub::parse_model_name(model_name), cache,
                                  {.local_files_only = local_files_only});
}

class ProcessModelRuntime final : public ModelRuntime {
 public:
  TorchRuntime* loaded_torch() noexcept override { return _library; }

  std::optional<ModelLibraryDescription> loaded_library() noexcept override {
    const ModelLibrary* const library = _library;
    if (library == nullptr) return std::nullopt;
    return library->describe();
  }

  void load_library() override { _open_library(); }

  void check_model(const std::filesystem::path& directory,
                   const std::filesystem::path& allowed_root) override {
    _open_library().check_model(directory, allowed_root);
  }

  std::unique_ptr<const LocalModel> sentence_transformer(const std::string& model_name,
                                                         bool local_files_only) override {
    const hub::CachedModel found = find_model(model_name, local_files_only);
    return _open_library().load_model(found.directory, found.allowed_root);
  }

 private:
  /// The library, opened if it was not. Threads that open it at the same moment get the same
  /// objects from the system, so it does not matter whose handle stays.
  ModelLibrary& _open_library() {
    ModelLibrary* found = _library;
    if (found != nullptr) return *found;
    std::unique_ptr<ModelLibrary> opened = ModelLibrary::open(model_library_path());
    if (_library.compare_exchange_strong(found, opened.get())) return *opened.release();
    return *found;
  }

  std::atomic<ModelLibrary*> _library = nullptr;  ///< Set once, never deleted.
};

}  // namespace

ModelRuntime& model_runtime() {
  static ModelRuntime& runtime = *new ProcessModelRuntime;
  return runtime;
}

}  // namespace tovana::embedding
