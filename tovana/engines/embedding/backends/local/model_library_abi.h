#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// The boundary between this component and a model library, a shared object that it opens at run
/// time (libtovana_sentence_transformers.so, or another at the path in TOVANA_MODEL_LIBRARY). Both
/// sides are compiled against this file and against nothing else of one another's.
///
/// Only plain C types cross, and no exception does: an operation that can fail returns null, or an
/// `Error`. Everything that one side allocates is freed by that side. Strings are UTF-8, given by
/// pointer and length, and may hold NUL; the pointer of an empty one may be null. What an operation
/// is given has to stay in place only until it returns.
///
/// Any number of threads may call any operations at once, unless the operation says otherwise.
///
/// The process may exit while threads are in any of the operations. A model library therefore
/// destroys nothing at exit that they use, or guards the exit by itself; what a host gives up for
/// such a guard its documentation says. Its constructors are quick: they run under the lock of the
/// dynamic loader, for which `exit` waits. What takes long belongs in `open`.
///
/// A change to anything below takes a new `kVersion`; the component refuses every other one.
namespace tovana::model_library_abi {

inline constexpr std::uint32_t kVersion = 4;

/// The file's name, and the one symbol it exports: a `GetTable` with C linkage.
inline constexpr const char* kFileName = "libtovana_sentence_transformers.so";
inline constexpr const char* kSymbol = "tovana_model_library";

struct Text {
  const char* data;
  std::size_t size;
};

constexpr Text text_of(std::string_view view) { return {.data = view.data(), .size = view.size()}; }
constexpr std::string_view view_of(Text text) { return {text.data, text.size}; }

/// A failure: made by the model library, read by the component, freed by `Table::free_error`. It
/// belongs to whoever the operation returned it to and to no other thread.
struct Error {
  /// "ModelFilesError" (a malformed model file: the message names file and fault), "ValueError" (of
  /// what a caller gave), "RuntimeError", or "std::bad_alloc", whose message is not read.
  Text kind;
  /// One line: what failed, where, what to do. Control characters are escaped.
  Text message;
};

/// What a model library computes with. The texts live as long as the process.
struct Description {
  Text runtime;  ///< "native", or another library's name and version: "libtorch 2.13.0".
  Text kernels;  ///< The instruction set of the arithmetic: "avx512".
};

/// In which numbers a model's weights are kept and multiplied. Sums, and all that is no product of
/// matrices, are float32 in both.
enum class NumberFormat : std::int32_t { float32 = 0, bfloat16 = 1 };

struct LoadOptions {
  NumberFormat number_format;
};

/// A loaded model; never changes after it was loaded. The component sees only its address.
struct Model;

/// A text that the model wants before other texts, by a name.
struct Prompt {
  Text name;
  Text text;
};

struct EncodeCall {
  const Text* texts;  ///< `[count]`, well-formed UTF-8.
  std::size_t count;
  std::int32_t normalize;  ///< Whether each vector is scaled to unit length, unless 0.
  /// The prompt that stands before every text, by its name; null for the model's default prompt,
  /// or none where it has no default.
  const Text* prompt_name;
  const Text* prompt;  ///< A text that does so in place of any of the model's prompts; null: none.
  float* vectors;      ///< `[count x dimension]`, row after row, in the order of the texts.
  /// `[count]`: how many tokens of each text were encoded, the prompt's and the special ones
  /// included, what was cut off not; null when nobody asks.
  std::uint32_t* token_counts;
};

struct Table {
  // These two stay where they are in every version, and are read before anything else.
  std::uint32_t version;  ///< kVersion of the header that the model library was compiled against.
  std::uint32_t size;     ///< sizeof(Table) of the same.

  /// Makes the library ready to be used; called before any other operation but `free_error`. After
  /// a failure it may be called again, and tries again; after a success it does nothing. May block
  /// for as long as it takes to load other libraries.
  Error* (*open)();

  /// What the library that is ready computes with. Cannot fail.
  Description (*describe)();

  /// Whether this library computes with a number format on this processor: 1, or 0. Every library
  /// does with float32. Called once it is ready. Cannot fail.
  std::int32_t (*supports)(NumberFormat number_format);

  /// The count of threads that a call computes on, the calling one included: a setting of the
  /// calling thread.
  Error* (*get_num_threads)(std::int32_t* count);

  /// Sets it, and the default that a thread copies the first time it computes. `count` is at least
  /// 1.
  Error* (*set_num_threads)(std::int32_t count);

  /// Whether a model could be loaded: reads its configuration and tokenizer, and the names and
  /// shapes of its tensors, but not their numbers. Paths and errors as those of `load_model`.
  Error* (*check_model)(Text directory, Text allowed_root);

  /// Loads a model from a directory. No file is read that lies, links followed, outside
  /// `allowed_root`, an ancestor of the directory or the directory itself. Both are absolute paths.
  /// A number format that it does not support is a "RuntimeError".
  /// On success `*model` belongs to the caller, until `free_model`; otherwise it is null.
  /// May block for seconds. Never reaches for the network.
  Error* (*load_model)(Text directory, Text allowed_root, const LoadOptions* options,
                       Model** model);

  /// The number of floats in each of the model's vectors, at least 1. Cannot fail.
  std::size_t (*dimension)(const Model* model);

  /// How many prompts the model has, and each of them, by its index below that; the texts live as
  /// long as the model. Cannot fail.
  std::size_t (*prompt_count)(const Model* model);
  Prompt (*prompt)(const Model* model, std::size_t index);

  /// The index of the default prompt; `prompt_count` where there is none. Cannot fail.
  std::size_t (*default_prompt)(const Model* model);

  /// Encodes texts on the calling thread and on as many others as its count says. A prompt that
  /// the model does not have is a "ValueError" that names those it has. After a failure the vectors
  /// and counts hold anything. No texts: nothing is done.
  Error* (*encode)(const Model* model, const EncodeCall* call);

  /// Frees a model that no other thread is using. Null: nothing is done. Cannot fail.
  void (*free_model)(Model* model);

  /// Frees a failure, on any thread. Null: nothing is done. Cannot fail.
  void (*free_error)(Error* error);
};

/// The table lives as long as the process. Null when the model library cannot work here at all.
/// It may be called more than once and always gives the same answer.
using GetTable = const Table* (*)();

}  // namespace tovana::model_library_abi
