#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tovana/base/mutex.h"
#include "tovana/engines/embedding/backends/local/model_runtime.h"

namespace tovana::embedding {

/// A runtime that does what it is told. Torch's thread setting works as torch's own: one a thread,
/// and a default that a thread copies the first time it computes; setting sets both.
class FakeModelRuntime final : public ModelRuntime, public TorchRuntime {
 public:
  /// Called at these points, without a lock: to fail, or to wait for another thread. Set before
  /// use.
  std::function<void()> on_load_library = [] {};
  std::function<void(bool local_files_only)> on_load_model = [](bool) {};
  std::function<void()> on_encode = [] {};
  std::function<void()> on_get = [] {};
  std::function<void(std::int64_t count)> on_set = [](std::int64_t) {};

  /// Everything that was asked, in order: "library", "cached NAME", "fetch NAME", "get", "set N",
  /// "encode N" with the thread count. Taking it empties it.
  std::vector<std::string> take_calls() {
    const LockGuard guard(_lock);
    return std::exchange(_calls, {});
  }

  TorchRuntime* loaded_torch() noexcept override {
    const LockGuard guard(_lock);
    return _is_loaded ? this : nullptr;
  }

  std::optional<ModelLibraryDescription> loaded_library() noexcept override { return std::nullopt; }

  void check_model(const std::filesystem::path& /*directory*/,
                   const std::filesystem::path& /*allowed_root*/) override {}

  void load_library() override {
    note("library");
    on_load_library();
    const LockGuard guard(_lock);
    _is_loaded = true;
  }

  std::int64_t get_num_threads() override {
    note("get");
    on_get();
    return current();
  }

  void set_num_threads(std::int64_t count) override {
    note("set " + std::to_string(count));
    on_set(count);
    const LockGuard guard(_lock);
    _default = _of_thread[std::this_thread::get_id()] = count;
  }

  std::unique_ptr<const LocalModel> sentence_transformer(const std::string& model_name,
                                                         bool local_files_only) override {
    note((local_files_only ? "cached " : "fetch ") + model_name);
    on_load_model(local_files_only);
    return std::make_unique<Model>(*this);
  }

 private:
  /// Vectors `{length of the text and its prompt, 1 if normalised}`.
  class Model final : public LocalModel {
   public:
    explicit Model(FakeModelRuntime& runtime) : _runtime(runtime) {}

    ModelPrompts prompts() const override { return {}; }

    EncodedTexts encode(std::span<const std::string_view> texts,
                        const EncodeOptions& options) const override {
      _runtime.note("encode " + std::to_string(_runtime.current()));
      _runtime.on_encode();
      FloatMatrix matrix{.columns = 2, .values = {}};
      const std::size_t prompt =
          options.prompt.value_or("").size() + options.prompt_name.value_or("").size();
      for (const std::string_view text : texts) {
        matrix.values.push_back(static_cast<float>(prompt + text.size()));
        matrix.values.push_back(options.normalize_embeddings ? 1.0F : 0.0F);
      }
      return {.vectors = std::move(matrix), .token_counts = {}};
    }

   private:
    FakeModelRuntime& _runtime;
  };

  void note(std::string call) {
    const LockGuard guard(_lock);
    _calls.push_back(std::move(call));
  }

  std::int64_t current() {
    const LockGuard guard(_lock);
    return _of_thread.try_emplace(std::this_thread::get_id(), _default).first->second;
  }

  mutable Mutex _lock;
  bool _is_loaded TOVANA_GUARDED_BY(_lock) = false;
  std::int64_t _default TOVANA_GUARDED_BY(_lock) = 16;
  std::map<std::thread::id, std::int64_t> _of_thread TOVANA_GUARDED_BY(_lock);
  std::vector<std::string> _calls TOVANA_GUARDED_BY(_lock);
};

}  // namespace tovana::embedding
