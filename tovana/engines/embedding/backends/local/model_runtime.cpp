#include "tovana/engines/embedding/backends/local/model_runtime.h"

#include <atomic>

#include "tovana/base/held_across_forks.h"
#include "tovana/base/mutex.h"
#include "tovana/engines/embedding/backends/local/model_library.h"
#include "tovana/engines/embedding/backends/local/precision.h"
#include "tovana/engines/hub/fetch_model.h"

namespace tovana::embedding {
namespace {

/// The folder of a model, which is fetched if it may be and has to be.
hub::CachedModel find_model(const std::string& model_name, bool local_files_only) {
  const hub::CacheSettings cache = hub::cache_settings();
  return hub::find_or_fetch_model(hub::parse_model_name(model_name), cache,
                                  {.local_files_only = local_files_only});
}

/// Held while the library is opened, and across forks: the system's loader does not survive a fork
/// in the middle of that, and a child would crash in half a library.
constinit Mutex opening;

const HeldAcrossForks<opening> opening_is_held_across_forks;

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
    const ModelLibrary& library = _open_library();
    return library.load_model(found.directory, found.allowed_root,
                              EMBED_PRECISION._settle(library));
  }

 private:
  /// The library, opened if it was not.
  ModelLibrary& _open_library() TOVANA_EXCLUDES(opening) {
    if (ModelLibrary* const found = _library; found != nullptr) return *found;
    const LockGuard lock(opening);
    if (_library == nullptr) _library = ModelLibrary::open(model_library_path()).release();
    return *_library;
  }

  std::atomic<ModelLibrary*> _library = nullptr;  ///< Set once, never deleted.
};

}  // namespace

ModelRuntime& model_runtime() {
  static ModelRuntime& runtime = *new ProcessModelRuntime;
  return runtime;
}

namespace {

/// Made when the program is loaded, when nothing forks yet.
[[maybe_unused]] const ModelRuntime& made_at_load = model_runtime();

}  // namespace

}  // namespace tovana::embedding
