#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

/// How many threads an encode computes on: a count of the thread that calls it, and a default of
/// the process's, which a thread makes its own when it first computes. Later changes of the default
/// mean nothing to that thread.
///
/// Threads: all of this may be called at any time, while the process exits and in forked children.
namespace tovana::sentence_transformers {

/// The calling thread's count, or the default if it has none yet.
std::size_t get_num_threads() noexcept;

/// Sets the calling thread's count and the default, to at least 1.
void set_num_threads(std::size_t count) noexcept;

/// The calling thread's count, for work that begins now: a thread without one takes the default for
/// its own.
std::size_t threads_to_compute_on() noexcept;

/// What OMP_NUM_THREADS asks for, its first number; none if that is no positive whole number. The
/// default of a process that has that in its environment; otherwise it is the processors that the
/// process may use. Looked at once, at the first call of any of the above.
std::optional<std::size_t> parse_omp_num_threads(std::string_view value) noexcept;

}  // namespace tovana::sentence_transformers
