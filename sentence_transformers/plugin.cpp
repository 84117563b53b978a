// The model library's side of the boundary: every operation of the table is one of
// SentenceTransformer's or the runtime's, behind a net that lets no exception through.

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sentence_transformers/model/runtime.h"
#include "sentence_transformers/model/sentence_transformer.h"
#include "tovana/base/json_kernels.h"
#include "tovana/base/text.h"
#include "tovana/engines/embedding/backends/local/model_library_abi.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

namespace tovana::model_library_abi {

struct Model {
  std::unique_ptr<const sentence_transformers::SentenceTransformer> transformer;
};

}  // namespace tovana::model_library_abi

namespace tovana::sentence_transformers {
namespace {

namespace abi = model_library_abi;

/// A failure that owns its texts.
struct OwnedError {
  abi::Error view;  ///< First, so that a pointer to it is one to the whole.
  std::string kind;
  std::string message;
};

abi::Error* make_error(std::string_view kind, std::string_view message) {
  auto error = std::make_unique<OwnedError>();
  error->kind = kind;
  error->message = escape_control_characters(message);
  error->view = {.kind = abi::text_of(error->kind), .message = abi::text_of(error->message)};
  return &error.release()->view;
}

/// What is returned when there is no memory for anything else. Never freed.
abi::Error* out_of_memory() noexcept {
  static abi::Error error = {.kind = abi::text_of("std::bad_alloc"), .message = abi::text_of("")};
  return &error;
}

abi::Error* describe_current_exception() {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return out_of_memory();
  } catch (const files::ModelFilesError& error) {
    return make_error("ModelFilesError", error.what());
  } catch (const ValueError& error) {
    return make_error("ValueError", error.what());
  } catch (const RuntimeError& error) {
    return make_error("RuntimeError", error.what());
  } catch (const std::exception& error) {
    const std::optional<std::string> own = library_runtime().message_of(error);
    return make_error("RuntimeError", own ? *own : failure_text(error));
  } catch (...) {
    return make_error("RuntimeError", "an exception of an unknown type");
  }
}

/// Runs the body; null, or the failure it ended with.
template <typename Body>
abi::Error* guarded(const Body& body) noexcept {
  try {
    body();
    return nullptr;
  } catch (...) {
    try {
      return describe_current_exception();
    } catch (...) {
      return out_of_memory();
    }
  }
}

abi::Error* open() {
  return guarded([] {
    keep_json_kernels();
    library_runtime().open();
  });
}

abi::Description describe() {
  const Runtime& runtime = library_runtime();
  return {.runtime = abi::text_of(runtime.name()),
          .kernels = abi::text_of(runtime.instruction_set())};
}

/// The format that is meant, if the runtime supports it.
std::optional<NumberFormat> supported_format(abi::NumberFormat number_format) {
  std::optional<NumberFormat> format;
  if (number_format == abi::NumberFormat::float32) format = NumberFormat::float32;
  if (number_format == abi::NumberFormat::bfloat16) format = NumberFormat::bfloat16;
  if (format && !library_runtime().supports(*format)) format.reset();
  return format;
}

std::int32_t supports(abi::NumberFormat number_format) {
  return supported_format(number_format) ? 1 : 0;
}

abi::Error* get_num_threads(std::int32_t* count) {
  return guarded([count] {
    constexpr std::size_t kMost = std::numeric_limits<std::int32_t>::max();
    *count = static_cast<std::int32_t>(std::min(library_runtime().get_num_threads(), kMost));
  });
}

abi::Error* set_num_threads(std::int32_t count) {
  return guarded([count] {
    if (count < 1) throw RuntimeError("a number of threads is at least 1");
    library_runtime().set_num_threads(static_cast<std::size_t>(count));
  });
}

files::ModelDirectory directory_of(abi::Text directory, abi::Text allowed_root) {
  return {abi::view_of(directory), abi::view_of(allowed_root)};
}

abi::Error* check_model(abi::Text directory, abi::Text allowed_root) {
  return guarded([&] {
    SentenceTransformer::check(directory_of(directory, allowed_root), library_runtime());
  });
}

abi::Error* load_model(abi::Text directory, abi::Text allowed_root, const abi::LoadOptions* options,
                       abi::Model** model) {
  *model = nullptr;
  return guarded([&] {
    const std::optional<NumberFormat> format = supported_format(options->number_format);
    if (!format) {
      throw RuntimeError("the model library does not support the number format " +
                         std::to_string(static_cast<std::int32_t>(options->number_format)));
    }
    auto loaded = std::make_unique<abi::Model>();
    loaded->transformer = SentenceTransformer::load(directory_of(directory, allowed_root),
                                                    library_runtime(), *format);
    *model = loaded.release();
  });
}

std::size_t dimension(const abi::Model* model) { return model->transformer->dimension(); }

std::size_t prompt_count(const abi::Model* model) {
  return model->transformer->prompts().all().size();
}

abi::Prompt prompt(const abi::Model* model, std::size_t index) {
  const Prompt& prompt = model->transformer->prompts().all()[index];
  return {.name = abi::text_of(prompt.name), .text = abi::text_of(prompt.text)};
}

std::size_t default_prompt(const abi::Model* model) {
  return model->transformer->prompts().default_index().value_or(prompt_count(model));
}

abi::Error* encode(const abi::Model* model, const abi::EncodeCall* call) {
  return guarded([model, call] {
    EncodeParameters options = {.normalize = call->normalize != 0};
    if (call->prompt_name != nullptr) options.prompt_name = abi::view_of(*call->prompt_name);
    if (call->prompt != nullptr) options.prompt = abi::view_of(*call->prompt);
    if (call->token_counts != nullptr) options.token_counts = {call->token_counts, call->count};
    std::vector<std::string_view> texts(call->count);
    std::transform(call->texts, call->texts + call->count, texts.begin(), abi::view_of);
    model->transformer->encode(texts, options, call->vectors);
  });
}

void free_model(abi::Model* model) { delete model; }

void free_error(abi::Error* error) {
  if (error != out_of_memory()) delete reinterpret_cast<OwnedError*>(error);
}

}  // namespace
}  // namespace tovana::sentence_transformers

// The one symbol that is exported; its name is the loader's `kSymbol`.
extern "C" __attribute__((visibility("default"))) const tovana::model_library_abi::Table*
tovana_model_library() {
  namespace plugin = tovana::sentence_transformers;
  static constexpr tovana::model_library_abi::Table kTable = {
      .version = tovana::model_library_abi::kVersion,
      .size = sizeof(tovana::model_library_abi::Table),
      .open = plugin::open,
      .describe = plugin::describe,
      .supports = plugin::supports,
      .get_num_threads = plugin::get_num_threads,
      .set_num_threads = plugin::set_num_threads,
      .check_model = plugin::check_model,
      .load_model = plugin::load_model,
      .dimension = plugin::dimension,
      .prompt_count = plugin::prompt_count,
      .prompt = plugin::prompt,
      .default_prompt = plugin::default_prompt,
      .encode = plugin::encode,
      .free_model = plugin::free_model,
      .free_error = plugin::free_error,
  };
  return &kTable;
}
