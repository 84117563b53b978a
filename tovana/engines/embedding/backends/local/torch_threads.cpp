#include "tovana/engines/embedding/backends/local/torch_threads.h"

#include <algorithm>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

#include "tovana/base/text.h"
#include "tovana/engines/embedding/backends/local/model_runtime.h"
#include "tovana/engines/embedding/settings.h"

namespace tovana::embedding {
namespace {

std::string_view without_leading_space(std::string_view text) {
  while (!text.empty()) {
    const utf8::Decoded first = decode_character(text, 0);
    if (!is_white_space(first.code_point)) break;
    text.remove_prefix(first.size);
  }
  return text;
}

constexpr bool is_digit(char character) { return character >= '0' && character <= '9'; }

/// The whole number that `text` is, or the nearest of 64 bits to it; none if it is no number.
std::optional<std::int64_t> parse_whole(std::string_view text) {
  constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
  text = without_leading_space(text);
  const bool is_negative = text.starts_with('-');
  if (is_negative || text.starts_with('+')) text.remove_prefix(1);
  std::int64_t number = 0;
  bool after_digit = false;
  while (!text.empty()) {
    const char character = text.front();
    if (is_digit(character)) {
      const std::int64_t digit = character - '0';
      number = number > (kLargest - digit) / 10 ? kLargest : 10 * number + digit;
      after_digit = true;
    } else if (character == '_' && after_digit) {
      after_digit = false;
    } else {
      break;
    }
    text.remove_prefix(1);
  }
  if (!after_digit || !without_leading_space(text).empty()) return std::nullopt;
  return is_negative ? -number : number;
}

}  // namespace

constinit TorchThreads TORCH_THREADS;
static_assert(std::is_trivially_destructible_v<TorchThreads>);

std::int64_t embed_threads(const Environment* environment) {
  const std::optional<std::string> value = environment_variable(EMBED_THREADS_ENV, environment);
  if (!value) return DEFAULT_EMBED_THREADS;
  return std::max<std::int64_t>(0, parse_whole(*value).value_or(DEFAULT_EMBED_THREADS));
}

std::int64_t TorchThreads::_default_of(TorchRuntime& torch) {
  std::int64_t known = _default;
  if (known != 0) return known;
  const std::int64_t read = torch.get_num_threads();
  // What was read during another's bound comes too late: that one had stored the default before.
  return _default.compare_exchange_strong(known, read) ? read : known;
}

TorchThreads::Bound::Bound(TorchThreads& threads, std::int64_t limit) {
  ModelRuntime& runtime = threads._runtime != nullptr ? *threads._runtime : model_runtime();
  TorchRuntime* const torch = runtime.loaded_torch();
  if (torch == nullptr || limit <= 0) return;
  _default = threads._default_of(*torch);
  if (limit >= _default) return;
  torch->set_num_threads(limit);
  _torch = torch;
}

TorchThreads::Bound::~Bound() {
  try {
    give_back();
  } catch (...) {  // the body's error is on its way
  }
}

void TorchThreads::Bound::give_back() {
  if (_torch == nullptr) return;
  std::exchange(_torch, nullptr)->set_num_threads(_default);
}

}  // namespace tovana::embedding
