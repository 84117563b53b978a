#include "sentence_transformers/compute/workers.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <list>
#include <memory>
#include <system_error>
#include <utility>

#include <sys/types.h>
#include <unistd.h>

#include "tovana/base/background_thread.h"
#include "tovana/base/condition_variable.h"
#include "tovana/base/mutex.h"
#include "tovana/base/per_process.h"
#include "tovana/base/platform.h"

namespace tovana::sentence_transformers {
namespace {

void pause() noexcept {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

using SteadyClock = std::chrono::steady_clock;

/// Some 40 microseconds: longer than a thread is late at the end of a step, or than a caller takes
/// from one short text to the next; about what sleeping and waking cost both sides, so that looking
/// out in vain at most doubles that.
constexpr int kSpins = 2000;

/// A wait for others' parts that is longer than this, and than what two parts take, means that the
/// system has stopped a helper in the middle of one: it has other things for that processor to do.
constexpr SteadyClock::duration kLongWait = std::chrono::microseconds(200);

/// For so long after that, work with many steps is done by its caller alone, rather than have every
/// step wait for the processors to be free at the same time.
constexpr SteadyClock::duration kTimeAlone = std::chrono::milliseconds(50);

constexpr std::size_t kCacheLine = 64;

/// What threads share about one call of `run_steps`. The work itself may be gone when a helper
/// still looks at this, which is why there is nothing to look at but numbers once it is done.
class Job {
 public:
  Job(SteppedWork& work, std::size_t steps, std::size_t parts)
      : _work(work), _steps(steps), _parts(parts), _unfinished(parts) {}

  struct Outcome {
    bool is_done;     ///< Otherwise this thread has left early.
    bool has_waited;  ///< For a helper that was stopped.
  };

  /// Takes parts and runs them until there are none left or `is_unwanted()`, asked after each part.
  template <typename Question>
  Outcome take_part(const Question& is_unwanted) {
    SteadyClock::duration part_time = {};
    SteadyClock::duration wait_time = {};
    auto begin = SteadyClock::now();
    for (std::uint64_t ticket = _next.load(std::memory_order_acquire);;) {
      const std::size_t step = ticket >> 32U;
      const std::size_t part = ticket & kPartMask;
      if (step == _steps) {
        return {.is_done = true, .has_waited = wait_time > std::max(kLongWait, 2 * part_time)};
      }
      if (part == _parts) {
        ticket = _wait_for_change(ticket);
        wait_time = std::max(wait_time, _since(begin));
      } else if (_next.compare_exchange_weak(ticket, ticket + 1, std::memory_order_acquire)) {
        _run(step, part);
        part_time = std::max(part_time, _since(begin));
        if (is_unwanted()) return {.is_done = false, .has_waited = false};
        ticket = _next.load(std::memory_order_acquire);
      }
    }
  }

  /// For the caller, when all is done.
  void rethrow() const {
    if (_failure) std::rethrow_exception(_failure);
  }

 private:
  static constexpr std::uint64_t kPartMask = 0xFFFFFFFF;

  /// Moves `begin` to now.
  static SteadyClock::duration _since(SteadyClock::time_point& begin) {
    const auto now = SteadyClock::now();
    return now - std::exchange(begin, now);
  }

  void _run(std::size_t step, std::size_t part) {
    _guarded([&] { _work.run(step, part); });
    if (_unfinished.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    // The last one of this step: nobody else does anything before the next one is opened.
    _unfinished.store(_parts, std::memory_order_relaxed);
    const bool is_over = _has_failed.load(std::memory_order_relaxed);
    _next.store(static_cast<std::uint64_t>(is_over ? _steps : step + 1) << 32U,
                std::memory_order_release);
    _next.notify_all();
  }

  template <typename Body>
  void _guarded(const Body& body) noexcept {
    if (_has_failed.load(std::memory_order_relaxed)) return;
    try {
      body();
    } catch (...) {
      if (!_has_failed.exchange(true)) _failure = std::current_exception();
    }
  }

  std::uint64_t _wait_for_change(std::uint64_t ticket) const {
    for (int spin = 0; spin < kSpins; ++spin) {
      const std::uint64_t now = _next.load(std::memory_order_acquire);
      if (now != ticket) return now;
      pause();
    }
    _next.wait(ticket, std::memory_order_acquire);
    return _next.load(std::memory_order_acquire);
  }

  SteppedWork& _work;
  const std::size_t _steps;
  const std::size_t _parts;
  // On lines of their own: who waits reads the former all the time.
  /// The step in the upper half, its next part in the lower.
  alignas(kCacheLine) std::atomic<std::uint64_t> _next = 0;
  alignas(kCacheLine) std::atomic<std::size_t> _unfinished;  ///< Parts of the open step.
  std::atomic<bool> _has_failed = false;
  std::exception_ptr _failure;  ///< Written by whoever set the former, read when all is done.
};

/// The helpers of a process and what they may help with.
class Workers {
 public:
  const pid_t process = getpid();

  void run(SteppedWork& work, std::size_t steps, std::size_t parts, std::size_t threads) {
    const auto job = std::make_shared<Job>(work, steps, parts);
    std::size_t helpers = std::min({threads - 1, parts - 1, _processors - 1});
    if (steps > 1 && SteadyClock::now().time_since_epoch() < _alone_until.load()) helpers = 0;
    const auto entry = _offer(job, helpers);
    const Job::Outcome outcome = job->take_part([] { return false; });
    if (steps > 1 && outcome.has_waited) {
      _alone_until = SteadyClock::now().time_since_epoch() + kTimeAlone;
    }
    _withdraw(entry);
    job->rethrow();
  }

 private:
  struct Offer {
    std::shared_ptr<Job> job;
    std::size_t helpers;  ///< How many more may join.
  };
  using Offers = std::list<Offer>;

  Offers::iterator _offer(std::shared_ptr<Job> job, std::size_t helpers) TOVANA_EXCLUDES(_lock) {
    const LockGuard guard(_lock);
    _offers.push_back({std::move(job), helpers});
    ++_computing;
    for (std::size_t idle = _idle; idle < helpers && _helpers < _processors - 1; ++idle) {
      if (!_start_helper()) break;
      ++_helpers;
    }
    const std::size_t wanted =
        _computing < _processors ? std::min(helpers, _processors - _computing) : 0;
    _offered.fetch_add(1, std::memory_order_relaxed);
    for (std::size_t i = _watching; i < wanted; ++i) _changed.native().notify_one();
    return std::prev(_offers.end());
  }

  void _withdraw(Offers::iterator offer) TOVANA_EXCLUDES(_lock) {
    const LockGuard guard(_lock);
    _offers.erase(offer);
    --_computing;
    if (!_offers.empty()) _changed.notify_all();
  }

  /// False when the system gives us no thread: then there is one less to help.
  bool _start_helper() {
    try {
      start_background_thread("tovana-encode", [this] { _help(); });
      return true;
    } catch (const std::system_error&) {
      return false;
    }
  }

  [[noreturn]] void _help() TOVANA_EXCLUDES(_lock) {
    bool has_watched = true;
    _lock.lock();
    while (true) {
      const auto offer = _find_offer();
      if (offer == _offers.end()) {
        ++_idle;
        if (has_watched) {
          _changed.wait(_lock);
        } else {
          _watch();
        }
        --_idle;
        has_watched = true;
        continue;
      }
      has_watched = false;
      --offer->helpers;
      ++_computing;
      const std::shared_ptr<Job> job = offer->job;
      _lock.unlock();
      const Job::Outcome outcome = job->take_part(
          [this] { return _computing.load(std::memory_order_relaxed) > _processors; });
      _lock.lock();
      --_computing;
      if (!outcome.is_done) _offer_again(job);
    }
  }

  /// Looks out for the next offer for a while, without the lock. Nobody wakes those who do.
  void _watch() TOVANA_REQUIRES(_lock) {
    const std::size_t seen = _offered.load(std::memory_order_relaxed);
    ++_watching;
    _lock.unlock();
    for (int spin = 0; spin < kSpins && _computing.load(std::memory_order_relaxed) < _processors &&
                       _offered.load(std::memory_order_relaxed) == seen;
         ++spin) {
      pause();
    }
    _lock.lock();
    --_watching;
  }

  Offers::iterator _find_offer() TOVANA_REQUIRES(_lock) {
    if (_computing >= _processors) return _offers.end();
    return std::ranges::find_if(_offers, [](const Offer& offer) { return offer.helpers > 0; });
  }

  void _offer_again(const std::shared_ptr<Job>& job) TOVANA_REQUIRES(_lock) {
    const auto offer = std::ranges::find(_offers, job, &Offer::job);
    if (offer != _offers.end()) ++offer->helpers;
  }

  const std::size_t _processors = usable_processors();
  Mutex _lock;
  ConditionVariable _changed;
  Offers _offers TOVANA_GUARDED_BY(_lock);  ///< One for each call under way.
  std::size_t _helpers TOVANA_GUARDED_BY(_lock) = 0;
  std::size_t _idle TOVANA_GUARDED_BY(_lock) = 0;        ///< Helpers with nothing to do.
  std::size_t _watching TOVANA_GUARDED_BY(_lock) = 0;    ///< Those of them that do not sleep yet.
  std::atomic<std::size_t> _offered = 0;                 ///< Offers so far; written under the lock.
  std::atomic<SteadyClock::duration> _alone_until = {};  ///< Since the clock's beginning.
  std::atomic<std::size_t> _computing = 0;  ///< Threads that do; written under the lock.
};

/// Never destroyed, for helpers sleep on its lock while the process exits; made when this is loaded,
/// so that no child is forked while it is being made.
auto& workers = *new PerProcess<Workers>;

}  // namespace

void run_steps(SteppedWork& work, std::size_t steps, std::size_t parts, std::size_t threads) {
  if (steps == 0 || parts == 0) return;
  workers.get().run(work, steps, parts, std::max<std::size_t>(threads, 1));
}

}  // namespace tovana::sentence_transformers
