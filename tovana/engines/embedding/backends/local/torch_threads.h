#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "tovana/base/environment.h"
#include "tovana/base/export.h"

namespace tovana::embedding {

class ModelRuntime;  // model_runtime.h
class TorchRuntime;

/// The bound on the intra-op threads of one local embedding call: the value of
/// `EMBED_THREADS_ENV`, 0 if that is below 0, `DEFAULT_EMBED_THREADS` when the variable is absent
/// or holds no whole number. 0 leaves the model library's own setting.
///
/// A whole number is decimal, in the digits 0 to 9, with white space around it, a sign in front,
/// leading zeros and single underscores between two digits if need be: " +1_6 " is 16. One beyond
/// 64 bits counts as the largest there is. White space is Unicode's, since a value copied from a
/// page may carry a no-break space; digits of other scripts are none, as in any C++ number.
///
/// A null `environment` is the process's own, read at each call.
TOVANA_API std::int64_t embed_threads(const Environment* environment = nullptr);

/// Bounds the threads that the model library computes on, for a stretch of work on one thread.
///
/// By default those are as many as there are cores. The library keeps its setting the way torch
/// does: per thread, beside a default that a thread copies the first time it computes, and sets
/// both at once. So the default is read before anything is bounded, and every bound gives that
/// back. A thread that starts to compute during another's bound copies the bound; its own next
/// bound gives it the default. The library's own kernels share one pool of threads in the process,
/// of which a call takes as many as its setting allows; on libtorch every thread that computes
/// keeps a team of its own for as long as it lives, and one made inside a bound has the bound's
/// size.
///
/// Threads: several may be in bounds at the same time and do not disturb one another, nor a child that
/// is forked meanwhile.
class TOVANA_API TorchThreads {
 public:
  /// Null: the process's own runtime.
  explicit constexpr TorchThreads(ModelRuntime* runtime = nullptr) : _runtime(runtime) {}
  TorchThreads(const TorchThreads&) = delete;
  TorchThreads& operator=(const TorchThreads&) = delete;

  /// Runs `body` on at most `limit` intra-op threads and returns what it returns. Changes nothing
  /// when no model library is loaded (nor loads it), when `limit` is 0 or less (the setting is not
  /// even read), and when the library's own default is no more than `limit`. Otherwise the default
  /// is set again afterwards, also when `body` throws; its error goes on to the caller. If the
  /// limit cannot be set, `body` does not run and the caller gets that error.
  template <class Body>
  std::invoke_result_t<Body> bounded(std::int64_t limit, Body&& body) {
    Bound bound(*this, limit);
    if constexpr (std::is_void_v<std::invoke_result_t<Body>>) {
      std::forward<Body>(body)();
      bound.give_back();
    } else {
      std::invoke_result_t<Body> result = std::forward<Body>(body)();
      bound.give_back();
      return result;
    }
  }

  /// The library's own setting, as the first one read it that asked for this.
  std::int64_t _default_of(TorchRuntime& torch);

 private:
  class TOVANA_API Bound {
   public:
    Bound(TorchThreads& threads, std::int64_t limit);
    /// Gives back what a failed body left; there its error counts, not one of this.
    ~Bound();
    Bound(const Bound&) = delete;
    Bound& operator=(const Bound&) = delete;

    void give_back();

   private:
    TorchRuntime* _torch = nullptr;  ///< Null: there is nothing to give back.
    std::int64_t _default = 0;
  };

  ModelRuntime* const _runtime;
  /// 0: not read yet. Without a lock, which a forked child might find held for ever.
  std::atomic<std::int64_t> _default = 0;
};

/// The one instance of the process; every local embedding call goes through it. Has no destructor,
/// so it serves threads that still run while the process exits.
extern TOVANA_API constinit TorchThreads TORCH_THREADS;

}  // namespace tovana::embedding
