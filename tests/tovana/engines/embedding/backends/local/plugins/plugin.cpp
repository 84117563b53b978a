#include "tests/tovana/engines/embedding/backends/local/plugins/plugin.h"

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include <unistd.h>

#include "tovana/engines/embedding/backends/local/model_library_abi.h"

/// One source for all plugins: the macro that CMakeLists.txt defines names the one thing that is
/// wrong with each.
namespace tovana::model_library_abi {

struct Model {};

namespace {

using namespace tovana::testing;

int alive = 0;  ///< Models and errors that have not been freed.
std::int32_t threads = 16;

void free_error(Error* error) {
  if (error != nullptr) --alive;
  delete error;
}

/// As libtorch's statics: whoever destroys it below a computation crashes.
struct InUse {
  ~InUse() {
    if (is_hanging) std::abort();
  }
  static inline std::atomic<bool> is_hanging = false;
} made_at_start;

[[noreturn]] void hang() {
  InUse::is_hanging = true;
  static_cast<void>(write(kHangingDescriptor, "h", 1) + 1);
  for (;;) pause();
}

Error* act(std::string_view wish) {
  static constexpr std::string_view kFail = "fail ", kMessage = "does not work";
  if (wish == "throw") throw std::logic_error("oops");
  if (wish == "throw int") throw 1;
  if (wish == "hang") hang();
  if (!wish.starts_with(kFail)) return nullptr;
  ++alive;
  wish.remove_prefix(kFail.size());  // the test's own text, which outlives the error
  return new Error{{wish.data(), wish.size()}, {kMessage.data(), kMessage.size()}};
}

Error* load_model(Text directory, Text /*allowed_root*/, Model** model) {
  const std::string_view path(directory.data, directory.size);
  const std::string_view wish = path.substr(path.rfind('/') + 1);
  static const InUse made_late;
  if (Error* const error = act(wish)) return error;
  if (wish == "nothing") return nullptr;
  ++alive;
  *model = new Model;
  return nullptr;
}

void free_model(Model* model) {
  if (model != nullptr) --alive;
  delete model;
}

Error* encode(const Model* /*model*/, const Text* texts, std::size_t count, std::int32_t normalize,
              float* vectors) {
  for (std::size_t i = 0; i < count; ++i, vectors += kPluginDimension) {
    if (Error* const error = act({texts[i].data, texts[i].size})) return error;
    vectors[0] = static_cast<float>(texts[i].size);
    vectors[1] = static_cast<float>(threads);
    vectors[2] = static_cast<float>(normalize);
  }
  return nullptr;
}

Table table = {
    .version = kVersion,
    .size = sizeof(Table),
    .get_num_threads = [](std::int32_t* count) -> Error* {
      *count = threads;
      return nullptr;
    },
    .set_num_threads = [](std::int32_t count) -> Error* {
      threads = count;
      return nullptr;
    },
    .load_model = load_model,
    .dimension = [](const Model*) -> std::size_t { return kPluginDimension; },
    .encode = encode,
    .free_model = free_model,
    .free_error = free_error,
};

#ifdef HANGING_CONSTRUCTOR
struct HangsAtStart {
  HangsAtStart() { hang(); }
} hangs_at_start;
#endif

}  // namespace
}  // namespace tovana::model_library_abi

extern "C" [[gnu::visibility("default")]] const tovana::model_library_abi::Table*
#if defined(NO_SYMBOL)
another_library() {
#else
tovana_model_library() {
#endif
#if defined(NO_TABLE)
  return nullptr;
#elif defined(WRONG_VERSION)
  tovana::model_library_abi::table.version = 0;
#elif defined(WRONG_SIZE)
    tovana::model_library_abi::table.size = 0;
#endif
  return &tovana::model_library_abi::table;
}

/// How many models and errors the component has not given back.
extern "C" [[gnu::visibility("default")]] int tovana_test_alive() {
  return tovana::model_library_abi::alive;
}
