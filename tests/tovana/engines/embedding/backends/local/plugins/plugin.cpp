#include "tests/tovana/engines/embedding/backends/local/plugins/plugin.h"

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>

#include <unistd.h>

#include "tovana/engines/embedding/backends/local/model_library_abi.h"

/// One source for all plugins: the macro that CMakeLists.txt defines names the one thing that is
/// wrong with each.
namespace tovana::model_library_abi {

struct Model {
  NumberFormat number_format;
};

namespace {

using namespace tovana::testing;

int alive = 0;  ///< Models and errors that have not been freed.
std::int32_t threads = 16;

void free_error(Error* error) {
  if (error != nullptr) --alive;
  delete error;
}

[[noreturn]] void hang() {
  static_cast<void>(write(kHangingDescriptor, "h", 1) + 1);
  for (;;) pause();
}

Error* act(std::string_view wish) {
  static constexpr std::string_view kFail = "fail ";
  if (wish == "throw") throw std::logic_error("oops");
  if (wish == "throw int") throw 1;
  if (wish == "hang") hang();
  if (!wish.starts_with(kFail)) return nullptr;
  ++alive;
  wish.remove_prefix(kFail.size());  // the test's own text, which outlives the error
  return new Error{text_of(wish), text_of("does not work")};
}

std::string_view last_part(Text path) { return view_of(path).substr(view_of(path).rfind('/') + 1); }

Error* open() {
#ifdef FAILING_OPEN
  static int attempts = 0;
  if (++attempts == 1) return act("fail ValueError");
#endif
  return nullptr;
}

std::int32_t supports(NumberFormat number_format) {
#ifdef FLOAT32_ONLY
  return number_format == NumberFormat::float32 ? 1 : 0;
#else
  return number_format <= NumberFormat::bfloat16 ? 1 : 0;
#endif
}

Error* check_model(Text directory, Text /*allowed_root*/) { return act(last_part(directory)); }

Error* load_model(Text directory, Text /*allowed_root*/, const LoadOptions* options,
                  Model** model) {
  const std::string_view wish = last_part(directory);
  if (Error* const error = act(wish)) return error;
  if (wish == "nothing") return nullptr;
  ++alive;
  *model = new Model{options->number_format};
  return nullptr;
}

void free_model(Model* model) {
  if (model != nullptr) --alive;
  delete model;
}

Error* encode(const Model* model, const EncodeCall* call) {
  std::string prompt;
  for (const Text* each : {call->prompt_name, call->prompt}) {
    if (each != nullptr) prompt += view_of(*each);
  }
  float* vector = call->vectors;
  for (std::size_t i = 0; i < call->count; ++i, vector += kPluginDimension) {
    const Text text = call->texts[i];
    if (Error* const error = act(view_of(text))) return error;
    vector[0] = static_cast<float>(prompt.size() + text.size);
    vector[1] = static_cast<float>(threads);
    vector[2] = static_cast<float>(call->normalize + 2 * static_cast<int>(model->number_format));
    if (call->token_counts != nullptr) {
      call->token_counts[i] = static_cast<std::uint32_t>(text.size);
    }
  }
  return nullptr;
}

constexpr std::array kPrompts = {
    Prompt{.name = text_of("query"), .text = text_of("q: ")},
    Prompt{.name = text_of("document"), .text = text_of("d: ")},
};

Table table = {
    .version = kVersion,
    .size = sizeof(Table),
    .open = open,
    .describe = []() -> Description {
      return {.runtime = text_of("fake"), .kernels = text_of("none")};
    },
    .supports = supports,
    .get_num_threads = [](std::int32_t* count) -> Error* {
      *count = threads;
      return nullptr;
    },
    .set_num_threads = [](std::int32_t count) -> Error* {
      threads = count;
      return nullptr;
    },
    .check_model = check_model,
    .load_model = load_model,
    .dimension = [](const Model*) -> std::size_t { return kPluginDimension; },
    .prompt_count = [](const Model*) -> std::size_t { return kPrompts.size(); },
    .prompt = [](const Model*, std::size_t index) -> Prompt { return kPrompts.at(index); },
    .default_prompt = [](const Model*) -> std::size_t { return 1; },
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
#elif defined(OLD_VERSION)
  tovana::model_library_abi::table.version = 1;
#elif defined(WRONG_SIZE)
    tovana::model_library_abi::table.size = 0;
#endif
  return &tovana::model_library_abi::table;
}

/// How many models and errors the component has not given back.
extern "C" [[gnu::visibility("default")]] int tovana_test_alive() {
  return tovana::model_library_abi::alive;
}
