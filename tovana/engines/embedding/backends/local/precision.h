#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string_view>

#include "tovana/base/environment.h"
#include "tovana/base/export.h"

namespace tovana::embedding {

class ModelLibrary;  // model_library.h

/// In which numbers local models keep their weights and multiply them. Sums are float32 in both, and
/// vectors the same to three digits, so those of both may stand in one store.
enum class Precision : std::uint8_t {
  float32 = 1,
  bfloat16,  ///< Half the memory and most of twice the speed, on processors with AVX512_BF16.
};

/// "float32" or "bfloat16".
TOVANA_API std::string_view precision_name(Precision precision) noexcept;

/// The precision of that name, to the letter.
TOVANA_API std::optional<Precision> precision_named(std::string_view name) noexcept;

/// The one precision that all local models of a process compute in: what `request` asked for, else
/// what `EMBED_PRECISION_ENV` did, else float32. It is settled when the first model is loaded and
/// kept from then on; where the model library does not compute in bfloat16 it is float32.
///
/// Threads: any number may call anything at once, also in a forked child, which keeps what its
/// parent had.
class TOVANA_API PrecisionSetting {
 public:
  constexpr PrecisionSetting() noexcept = default;
  PrecisionSetting(const PrecisionSetting&) = delete;
  PrecisionSetting& operator=(const PrecisionSetting&) = delete;

  /// Asks for a precision, whatever the environment does. Throws RuntimeError when models compute in
  /// another already.
  void request(Precision precision);

  /// What models compute in; none before the first is loaded.
  std::optional<Precision> used() const noexcept;

  /// The precision to load a model in, settled if it was not: then the log says which it is and, if
  /// not the one that was asked for, why. A variable that holds neither name counts as not set, with
  /// a warning. A null `environment` is the process's own.
  Precision _settle(const ModelLibrary& library, const Environment* environment = nullptr);

 private:
  static constexpr Precision kNone{};

  struct State {
    Precision asked = kNone;
    Precision used = kNone;  ///< Once it is another, nothing changes any more.
  };

  /// Without a lock, which a forked child might find held for ever.
  std::atomic<State> _state = State{};
};

/// The one instance of the process; every model is loaded as it says. Has no destructor, so it serves
/// threads that still run while the process exits.
extern TOVANA_API constinit PrecisionSetting EMBED_PRECISION;

}  // namespace tovana::embedding
