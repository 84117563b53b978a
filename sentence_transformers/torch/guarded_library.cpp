// The library that the component opens. It is quick to open, for it does not need libtorch: the
// library that does lies beside it and has the same table, to whose operations these pass on.

#include <atomic>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

#include <dlfcn.h>

#include "sentence_transformers/torch/exit_guard.h"
#include "tovana/base/text.h"
#include "tovana/engines/embedding/backends/local/model_library_abi.h"

namespace tovana::sentence_transformers {
namespace {

namespace abi = model_library_abi;

constexpr const char* kRuntimeFile = "libtovana_sentence_transformers_torch_runtime.so";

/// Null until it has been opened.
constinit std::atomic<const abi::Table*> runtime = nullptr;

/// The operation of that name in the table of the library that was opened.
template <auto kOperation>
struct PassOn;

template <typename Result, typename... Arguments, Result (*abi::Table::*kOperation)(Arguments...)>
struct PassOn<kOperation> {
  static Result call(Arguments... arguments) {
    return (runtime.load(std::memory_order_acquire)->*kOperation)(arguments...);
  }
};

// A failure of this library's own is told by where its kind lies.
constexpr std::string_view kRuntimeError = "RuntimeError";
constexpr std::string_view kNoMemory = "std::bad_alloc";

struct OwnError {
  abi::Error view;  ///< First, so that a pointer to it is one to the whole.
  std::string message;
};

abi::Error* make_error(std::string_view message) {
  auto error = std::make_unique<OwnError>();
  error->message = escape_control_characters(message);
  error->view = {.kind = abi::text_of(kRuntimeError), .message = abi::text_of(error->message)};
  return &error.release()->view;
}

abi::Error* out_of_memory() noexcept {
  static constinit abi::Error error = {.kind = abi::text_of(kNoMemory), .message = {}};
  return &error;
}

void free_error(abi::Error* error) {
  if (error == nullptr || error->kind.data == kNoMemory.data()) return;
  if (error->kind.data == kRuntimeError.data()) {
    delete reinterpret_cast<OwnError*>(error);
  } else {
    PassOn<&abi::Table::free_error>::call(error);
  }
}

/// The file in this library's folder.
std::string runtime_path() {
  Dl_info self = {};
  if (dladdr(reinterpret_cast<const void*>(&runtime_path), &self) == 0 || *self.dli_fname != '/') {
    throw std::runtime_error(std::string("cannot tell the folder that ") + kRuntimeFile +
                             " is in: the model library has to be opened by an absolute path");
  }
  const std::string_view path = self.dli_fname;
  return std::string(path.substr(0, path.rfind('/') + 1)) + kRuntimeFile;
}

const abi::Table& open_runtime() {
  const std::string path = runtime_path();
  const auto fail = [&path](const std::string& cause) {
    throw std::runtime_error("cannot load " + path + ": " + cause +
                             "; install libtorch where it was when this library was built, or "
                             "unset TOVANA_MODEL_LIBRARY to use the native one");
  };
  void* const object = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (object == nullptr) {
    const char* const reason = dlerror();  // this thread's own
    fail(reason != nullptr ? reason : "unknown reason");
  }
  void* const symbol = dlsym(object, abi::kSymbol);
  if (symbol == nullptr) fail(std::string("it has no symbol ") + abi::kSymbol);
  const abi::Table* const table = reinterpret_cast<abi::GetTable>(symbol)();
  if (table->version != abi::kVersion || table->size != sizeof(abi::Table)) {
    fail("it is of another release than the library beside it");
  }
  return *table;
}

abi::Error* open() {
  try {
    try {
      if (runtime == nullptr) {
        const OpeningGuard guard;
        if (runtime == nullptr) runtime = &open_runtime();
      }
      return PassOn<&abi::Table::open>::call();
    } catch (const std::bad_alloc&) {
      return out_of_memory();
    } catch (const std::exception& error) {
      return make_error(error.what());
    }
  } catch (...) {
    return out_of_memory();
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers

// The one symbol that is exported; its name is the loader's `kSymbol`.
extern "C" __attribute__((visibility("default"))) const tovana::model_library_abi::Table*
tovana_model_library() {
  namespace library = tovana::sentence_transformers;
  using tovana::model_library_abi::Table;
  static constexpr Table kTable = {
      .version = tovana::model_library_abi::kVersion,
      .size = sizeof(Table),
      .open = library::open,
      .describe = library::PassOn<&Table::describe>::call,
      .supports = library::PassOn<&Table::supports>::call,
      .get_num_threads = library::PassOn<&Table::get_num_threads>::call,
      .set_num_threads = library::PassOn<&Table::set_num_threads>::call,
      .check_model = library::PassOn<&Table::check_model>::call,
      .load_model = library::PassOn<&Table::load_model>::call,
      .dimension = library::PassOn<&Table::dimension>::call,
      .prompt_count = library::PassOn<&Table::prompt_count>::call,
      .prompt = library::PassOn<&Table::prompt>::call,
      .default_prompt = library::PassOn<&Table::default_prompt>::call,
      .encode = library::PassOn<&Table::encode>::call,
      .free_model = library::PassOn<&Table::free_model>::call,
      .free_error = library::free_error,
  };
  return &kTable;
}
