#include "sentence_transformers/torch/torch_runtime.h"

#include <algorithm>
#include <array>
#include <limits>

#include <ATen/Parallel.h>
#include <ATen/Version.h>
#include <c10/util/Exception.h>

#include "sentence_transformers/torch/torch_encoder.h"
#include "sentence_transformers/torch/undestroyed_statics.h"
#include "tovana/base/text.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {

std::string_view TorchRuntime::name() const noexcept { return "libtorch " TOVANA_LIBTORCH_VERSION; }

std::string_view TorchRuntime::instruction_set() const noexcept {
  // In lower case; a longer name than that is cut.
  static const auto name = [] {
    std::array<char, 16> letters{};
    ascii_lower(at::get_cpu_capability()).copy(letters.data(), letters.size() - 1);
    return letters;
  }();
  return name.data();
}

void TorchRuntime::open() const {
  if (!tovana_torch_statics_stay()) {
    throw RuntimeError(
        "this libtorch cannot be used: exit would destroy what threads compute with");
  }
}

std::size_t TorchRuntime::get_num_threads() const {
  return static_cast<std::size_t>(at::get_num_threads());
}

void TorchRuntime::set_num_threads(std::size_t count) const {
  constexpr std::size_t kMost = std::numeric_limits<int>::max();
  at::set_num_threads(static_cast<int>(std::min(count, kMost)));
}

void TorchRuntime::check_encoder(const Checkpoint& checkpoint,
                                 const TransformerConfig& config) const {
  TorchEncoder::check(checkpoint, config);
}

std::unique_ptr<const Encoder> TorchRuntime::load_encoder(const Checkpoint& checkpoint,
                                                          const TransformerConfig& config,
                                                          NumberFormat /*format*/) const {
  check_encoder(checkpoint, config);
  return std::make_unique<const TorchEncoder>(checkpoint, config, get_num_threads());
}

std::optional<std::string> TorchRuntime::message_of(const std::exception& error) const {
  const auto* const own = dynamic_cast<const c10::Error*>(&error);
  if (own == nullptr) return std::nullopt;
  return own->what_without_backtrace();  // what() has twenty lines of addresses
}

}  // namespace tovana::sentence_transformers
