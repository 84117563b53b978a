#include "sentence_transformers/compute/thread_count.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdlib>

#include "tovana/base/platform.h"

namespace tovana::sentence_transformers {
namespace {

// 0 stands for none in both.
constinit std::atomic<std::size_t> process_default = 0;
constinit thread_local std::size_t own_count = 0;

std::size_t initial_default() noexcept {
  if (const char* const value = std::getenv("OMP_NUM_THREADS")) {
    if (const auto count = parse_omp_num_threads(value)) return *count;
  }
  return usable_processors();
}

std::size_t default_count() noexcept {
  std::size_t count = process_default.load(std::memory_order_relaxed);
  if (count != 0) return count;
  const std::size_t initial = initial_default();
  // Somebody may have set it meanwhile.
  return process_default.compare_exchange_strong(count, initial) ? initial : count;
}

}  // namespace

std::size_t get_num_threads() noexcept { return own_count != 0 ? own_count : default_count(); }

void set_num_threads(std::size_t count) noexcept {
  own_count = std::max<std::size_t>(count, 1);
  process_default = own_count;
}

std::size_t threads_to_compute_on() noexcept {
  own_count = get_num_threads();
  return own_count;
}

std::optional<std::size_t> parse_omp_num_threads(std::string_view value) noexcept {
  constexpr std::string_view kBlank = " \t\n\v\f\r";
  value.remove_prefix(std::min(value.find_first_not_of(kBlank), value.size()));
  std::size_t count = 0;
  const auto [end, error] = std::from_chars(value.begin(), value.end(), count);
  if (error != std::errc() || count == 0) return std::nullopt;
  const std::string_view rest(end, value.end());
  const std::size_t next = rest.find_first_not_of(kBlank);
  if (next != std::string_view::npos && rest[next] != ',') return std::nullopt;
  return count;
}

}  // namespace tovana::sentence_transformers
