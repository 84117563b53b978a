#include "tovana/engines/embedding/backends/local/model_library.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iterator>
#include <limits>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

#include <dlfcn.h>
#include <sys/stat.h>

#include "tovana/base/platform.h"
#include "tovana/base/text.h"
#include "tovana/files/model_files_error.h"

namespace tovana::embedding {
namespace {

namespace abi = model_library_abi;
namespace fs = std::filesystem;

/// Why an operation on a file failed, from errno.
std::string system_reason() { return std::generic_category().message(errno); }

[[noreturn]] void throw_failure(const abi::Table& table, abi::Error* error) {
  const std::unique_ptr<abi::Error, void (*)(abi::Error*)> owned(error, table.free_error);
  const std::string_view kind = abi::view_of(error->kind);
  std::string message(abi::view_of(error->message));
  if (kind == "std::bad_alloc") throw std::bad_alloc();
  if (kind == "ModelFilesError") throw files::ModelFilesError(message);
  if (kind == "ValueError") throw ValueError(message);
  if (kind == "RuntimeError") throw RuntimeError(message);
  throw RuntimeError(std::string(kind) + ": " + message);
}

[[noreturn]] void throw_crossed(const char* operation, const std::string& what) {
  throw RuntimeError(std::string("the model library broke off ") + operation +
                     " with an exception, which it never should: " + what);
}

/// Calls an operation of the table. The library promises to throw nothing; one that breaks that
/// promise costs an error here, not the process.
template <class Operation, class... Arguments>
void call(const abi::Table& table, const char* name, Operation operation, Arguments... arguments) {
  abi::Error* error = nullptr;
  try {
    error = operation(arguments...);
  } catch (const std::exception& crossed) {
    throw_crossed(name, failure_text(crossed));
  } catch (...) {
    throw_crossed(name, "of an unknown type");
  }
  if (error != nullptr) throw_failure(table, error);
}

class LibraryModel final : public LocalModel {
 public:
  using Handle = std::unique_ptr<abi::Model, void (*)(abi::Model*)>;

  LibraryModel(const abi::Table& table, Handle model)
      : _table(table), _model(std::move(model)), _dimension(table.dimension(_model.get())) {}

  EncodedTexts encode(std::span<const std::string_view> texts,
                      const EncodeOptions& options) const override {
    if (texts.size() > std::numeric_limits<std::size_t>::max() / _dimension) {
      throw std::bad_alloc();
    }
    std::vector<abi::Text> given;
    given.reserve(texts.size());
    for (const std::string_view each : texts) given.push_back(abi::text_of(each));
    const abi::Text prompt_name = abi::text_of(options.prompt_name.value_or(""));
    const abi::Text prompt = abi::text_of(options.prompt.value_or(""));
    EncodedTexts encoded = {
        .vectors = {.columns = _dimension, .values = std::vector<float>(texts.size() * _dimension)},
        .token_counts = std::vector<std::uint32_t>(options.count_tokens ? texts.size() : 0)};
    const abi::EncodeCall wanted = {
        .texts = given.data(),
        .count = given.size(),
        .normalize = options.normalize_embeddings,
        .prompt_name = options.prompt_name ? &prompt_name : nullptr,
        .prompt = options.prompt ? &prompt : nullptr,
        .vectors = encoded.vectors.values.data(),
        .token_counts = options.count_tokens ? encoded.token_counts.data() : nullptr};
    call(_table, "encode", _table.encode, _model.get(), &wanted);
    return encoded;
  }

  ModelPrompts prompts() const override {
    ModelPrompts prompts;
    const std::size_t count = _table.prompt_count(_model.get());
    const std::size_t of_default = _table.default_prompt(_model.get());
    for (std::size_t i = 0; i < count; ++i) {
      const abi::Prompt prompt = _table.prompt(_model.get(), i);
      const auto place =
          prompts.texts.emplace(abi::view_of(prompt.name), abi::view_of(prompt.text)).first;
      if (i == of_default) prompts.default_name = place->first;
    }
    return prompts;
  }

 private:
  const abi::Table& _table;
  Handle _model;
  const std::size_t _dimension;
};

abi::NumberFormat number_format(Precision precision) {
  return precision == Precision::bfloat16 ? abi::NumberFormat::bfloat16
                                          : abi::NumberFormat::float32;
}

/// The directories that the file may be in, the first ones first.
std::vector<fs::path> directories_to_search() {
  std::vector<fs::path> beside;
  for (const fs::path& file : {file_of_this_component(), executable_file()}) {
    if (!file.empty()) beside.push_back(file.parent_path());
  }
  std::vector<fs::path> directories = beside;
  // The installed place, from where a library or a program of the same installation lies, so that
  // it can be moved as a whole.
  const fs::path installed = "tovana";
  for (const fs::path& directory : beside) {
    directories.push_back(directory / installed);
    directories.push_back(directory / TOVANA_LIBDIR_FROM_BINDIR / installed);
  }
  // From anywhere else, for a host that has the component linked in: where its linker was told that
  // the libraries are, and where they were made to be.
  std::ranges::move(runpath_of_this_component(), std::back_inserter(directories));
  directories.push_back(TOVANA_INSTALL_LIBDIR / installed);
  return directories;
}

enum class Place { named, searched };

/// True if the file may be opened, false if there is none. A search passes over directories that may
/// not be entered, as the dynamic loader's does.
bool check_file(const fs::path& path, Place place) {
  struct stat file = {};
  if (stat(path.c_str(), &file) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return false;
    if (errno == EACCES && place == Place::searched) return false;
    throw ModelLibraryError("cannot look at the model library " + path.string() + ": " +
                            system_reason());
  }
  if (!S_ISREG(file.st_mode)) {
    throw ModelLibraryError("the model library " + path.string() + " is no regular file");
  }
  if ((file.st_mode & S_IWOTH) != 0) {
    throw ModelLibraryError("the model library " + path.string() +
                            " is writable by every user, so it is not loaded; chmod o-w it");
  }
  return true;
}

void* open_object(const fs::path& path) {
  void* const object = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (object == nullptr) {
    const char* const reason = dlerror();  // this thread's own
    throw ModelLibraryError(
        "cannot load the model library " + path.string() + ": " +
        escape_control_characters(reason != nullptr ? reason : "unknown reason"));
  }
  return object;
}

/// Throws unless the table is one of this program's version.
void check_version(const abi::Table& table, const fs::path& path) {
  // The version is where it is in every version; nothing else has to be.
  if (table.version == abi::kVersion && table.size == sizeof(abi::Table)) return;
  throw ModelLibraryError("the model library " + path.string() + " has boundary version " +
                          std::to_string(table.version) + " (" + std::to_string(table.size) +
                          " bytes), this program needs version " + std::to_string(abi::kVersion) +
                          " (" + std::to_string(sizeof(abi::Table)) +
                          " bytes); install both from one release, or name another model library "
                          "in " +
                          MODEL_LIBRARY_ENV);
}

}  // namespace

fs::path model_library_path(const Environment* environment) {
  const std::optional<std::string> named = environment_variable(MODEL_LIBRARY_ENV, environment);
  if (named && !named->empty()) {
    fs::path path = *named;
    const std::string subject = std::string(MODEL_LIBRARY_ENV) + "=" + *named;
    if (!path.is_absolute()) {
      throw EnvironmentVariableError(subject + ": the path has to be absolute");
    }
    if (!check_file(path, Place::named))
      throw ModelLibraryError(subject + ": there is no such file");
    return path;
  }
  for (const fs::path& directory : directories_to_search()) {
    fs::path path = (directory / abi::kFileName).lexically_normal();
    if (check_file(path, Place::searched)) return path;
  }
  throw ModelLibraryNotInstalled();
}

std::unique_ptr<ModelLibrary> ModelLibrary::open(const fs::path& path) {
  void* const object = open_object(path);
  void* const symbol = dlsym(object, abi::kSymbol);
  if (symbol == nullptr) {
    throw ModelLibraryError("cannot load the model library " + path.string() +
                            ": it has no symbol " + abi::kSymbol + ", so it is another library");
  }
  const abi::Table* const table = reinterpret_cast<abi::GetTable>(symbol)();
  if (table == nullptr) {
    throw ModelLibraryError("the model library " + path.string() + " cannot work on this machine");
  }
  check_version(*table, path);
  try {
    call(*table, "open", table->open);
  } catch (const Error& error) {
    throw ModelLibraryError("cannot use the model library " + path.string() + ": " + error.what());
  }
  return std::unique_ptr<ModelLibrary>(new ModelLibrary(*table));
}

ModelLibraryDescription ModelLibrary::describe() const noexcept {
  const abi::Description description = _table.describe();
  return {.runtime = abi::view_of(description.runtime),
          .kernels = abi::view_of(description.kernels)};
}

bool ModelLibrary::supports(Precision precision) const noexcept {
  return _table.supports(number_format(precision)) != 0;
}

std::int64_t ModelLibrary::get_num_threads() {
  std::int32_t count = 0;
  call(_table, "get_num_threads", _table.get_num_threads, &count);
  return count;
}

void ModelLibrary::set_num_threads(std::int64_t count) {
  // The boundary counts in 32 bits; a team of so many threads is none of the library's own making.
  const auto bounded = static_cast<std::int32_t>(
      std::min<std::int64_t>(count, std::numeric_limits<std::int32_t>::max()));
  call(_table, "set_num_threads", _table.set_num_threads, bounded);
}

void ModelLibrary::check_model(const fs::path& directory, const fs::path& allowed_root) const {
  call(_table, "check_model", _table.check_model, abi::text_of(directory.native()),
       abi::text_of(allowed_root.native()));
}

std::unique_ptr<const LocalModel> ModelLibrary::load_model(const fs::path& directory,
                                                           const fs::path& allowed_root,
                                                           Precision precision) const {
  const abi::LoadOptions options = {.number_format = number_format(precision)};
  abi::Model* loaded = nullptr;
  call(_table, "load_model", _table.load_model, abi::text_of(directory.native()),
       abi::text_of(allowed_root.native()), &options, &loaded);
  LibraryModel::Handle model(loaded, _table.free_model);
  if (model == nullptr || _table.dimension(model.get()) == 0) {
    throw RuntimeError("the model library returned neither a usable model nor an error for " +
                       directory.string());
  }
  return std::make_unique<LibraryModel>(_table, std::move(model));
}

}  // namespace tovana::embedding
