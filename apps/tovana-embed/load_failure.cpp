#include "load_failure.h"

#include <exception>
#include <new>

#include "tovana/base/environment.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_files_error.h"

namespace tovana::tool {
namespace {

using embedding::EmbeddingNotReadyError;
using embedding::Fallback;
using hub::ModelFetchError;

constexpr const char* kWithoutModel = "; --backend tfidf needs no model";
constexpr const char* kAnotherModel =
    "; give another --model, or --backend tfidf, which needs none";

Failure could_not_load(ExitStatus status, const std::string& reason, const std::string& remedy) {
  return {status, "the embedding model could not be loaded: " + reason + remedy};
}

Failure fetch_failure(const ModelFetchError& error) {
  const ExitStatus status = exit_status(error.cause());
  return could_not_load(status, error.what(),
                        status == ExitStatus::not_ready ? kWithoutModel : kAnotherModel);
}

Failure failure_of(const std::exception_ptr& cause) {
  try {
    std::rethrow_exception(cause);
  } catch (const files::ModelFilesError& error) {
    return could_not_load(ExitStatus::bad_data, error.what(), kAnotherModel);
  } catch (const EnvironmentVariableError& error) {
    return could_not_load(ExitStatus::bad_data, error.what(), "");
  } catch (const ValueError& error) {  // of a model's name; it says what is expected
    return could_not_load(ExitStatus::usage, error.what(), "");
  } catch (const ModelFetchError& error) {
    return fetch_failure(error);
  } catch (const hub::CacheNotWritableError& error) {
    return could_not_load(ExitStatus::cannot_write, error.what(), kWithoutModel);
  } catch (
      const Error& error) {  // not cached where nothing may be fetched; the model library's own
    return could_not_load(ExitStatus::call_failed, error.what(), kWithoutModel);
  } catch (const std::bad_alloc&) {
    return could_not_load(ExitStatus::call_failed, "not enough memory", kAnotherModel);
  } catch (const std::exception& error) {
    return could_not_load(ExitStatus::call_failed, failure_text(error), kWithoutModel);
  } catch (...) {
    return could_not_load(ExitStatus::call_failed, "an error of an unknown kind", kWithoutModel);
  }
}

}  // namespace

ExitStatus exit_status(ModelFetchError::Cause cause) {
  using enum ModelFetchError::Cause;
  if (cause == unreachable) return ExitStatus::not_ready;
  return cause == not_a_model ? ExitStatus::bad_data : ExitStatus::call_failed;
}

Failure load_failure(const EmbeddingNotReadyError& error) {
  if (error.cause() != nullptr) return failure_of(error.cause());
  return {ExitStatus::not_ready,
          std::string(error.what()) + ". " + std::string(EmbeddingNotReadyError::hint)};
}

std::string remedy_for(Fallback::Cause cause) {
  switch (cause) {
    case Fallback::Cause::library_not_installed:
      return "install libtovana_sentence_transformers.so beside the tool or in tovana/ of the "
             "library "
             "folder (the Debian package is libtovana-sentence-transformers)";
    case Fallback::Cause::not_configured:
      return "give the URL in the settings, or another --backend";
    case Fallback::Cause::local_backend_failed:
      break;
  }
  return "give another --model, or --backend tfidf";
}

}  // namespace tovana::tool
