#pragma once

#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "sentence_transformers/compute/kernels.h"
#include "sentence_transformers/compute/number_format.h"
#include "sentence_transformers/model/checkpoint.h"
#include "sentence_transformers/model/encoder.h"
#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {

/// What a model library computes with: the encoder, which is all but everything that a text costs,
/// and the threads for it. Never destroyed through this interface.
///
/// Threads: any number may call anything at once, while the process exits, too.
class Runtime {
 public:
  Runtime() = default;
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  // The texts live as long as the process.
  /// "native", or the name and version of the library that does it: "libtorch 2.13.0".
  virtual std::string_view name() const noexcept = 0;
  /// The instruction set of the arithmetic, "avx512": that of the kernels, unless it has its own.
  virtual std::string_view instruction_set() const noexcept { return kernels().name; }

  /// Makes the runtime ready, where that takes anything; called before anything below, and again
  /// after a failure. May block for as long as it takes to load other libraries. Throws
  /// RuntimeError.
  virtual void open() const {}

  /// The count of threads that a call computes on, the calling one included: a setting of the
  /// calling thread.
  virtual std::size_t get_num_threads() const = 0;
  /// Sets it, and the default that a thread copies the first time it computes. `count` is at least
  /// 1.
  virtual void set_num_threads(std::size_t count) const = 0;

  /// Whether encoders compute with that number format on this processor.
  virtual bool supports(NumberFormat format) const { return format == NumberFormat::float32; }

  /// Throws ModelFilesError, naming the checkpoint's file, for an encoder that the runtime does not
  /// run. Reads no numbers.
  virtual void check_encoder(const Checkpoint& /*checkpoint*/,
                             const TransformerConfig& /*config*/) const {}

  /// The encoder of a checkpoint in which every tensor has been found (`open_encoder_checkpoint`).
  /// Reads the numbers: throws what `Checkpoint::tensor` and `check_encoder` do. Keeps nothing of the
  /// checkpoint. The format has to be one that it supports.
  virtual std::unique_ptr<const Encoder> load_encoder(const Checkpoint& checkpoint,
                                                      const TransformerConfig& config,
                                                      NumberFormat format) const = 0;

  /// What the modules behind the encoder compute with.
  virtual const Kernels& kernels() const noexcept = 0;

  /// The message, in one line, of an exception that is of the runtime's own kind; none for another.
  virtual std::optional<std::string> message_of(const std::exception& /*error*/) const {
    return std::nullopt;
  }

 protected:
  ~Runtime() = default;
};

/// The runtime of this model library: each library has one file that says which.
const Runtime& library_runtime() noexcept;

}  // namespace tovana::sentence_transformers
