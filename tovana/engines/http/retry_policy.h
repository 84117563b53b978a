#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <utility>

#include "tovana/base/clock.h"
#include "tovana/base/export.h"

/// When a call is tried again, how long it waits in between, and what ends it early.
namespace tovana::http {

/// Asked whether to give up; true means stop. It runs on the thread that made the call, and what it
/// throws reaches that call's caller.
using StopTest = std::function<bool()>;

enum class WaitEnding { elapsed, stopped };

/// Sleeps through a backoff of some seconds on the calling thread, unless the stop test, which may
/// be empty, says stop first.
using Wait = std::function<WaitEnding(double seconds, const StopTest& should_stop, Clock& clock)>;

/// The default `Wait`: asks the stop test at once and then every 50 ms, and returns when it says
/// stop or the seconds have passed. Seconds that are not above 0 have passed already.
TOVANA_API WaitEnding wait_unless_stopped(double seconds, const StopTest& should_stop,
                                          Clock& clock);

/// A set of HTTP statuses, given as single ones and inclusive ranges: `StatusSet{429, {500, 599}}`.
class StatusSet {
 public:
  struct Range {
    // NOLINTNEXTLINE(google-explicit-constructor): a status stands for the range of only itself
    constexpr Range(int only) : first(only), last(only) {}
    constexpr Range(int first_status, int last_status) : first(first_status), last(last_status) {}
    int first;
    int last;
  };

  StatusSet() = default;
  /// Throws std::out_of_range for a status outside 0 to 999.
  constexpr StatusSet(std::initializer_list<Range> ranges) {
    for (const Range& range : ranges) {
      for (int status = range.first; status <= range.last; ++status) {
        if (!_is_known(status)) throw std::out_of_range("an HTTP status is 0 to 999");
        _bits[_index(status) / 64] |= _mask(status);
      }
    }
  }

  constexpr bool contains(int status) const noexcept {
    return _is_known(status) && (_bits[_index(status) / 64] & _mask(status)) != 0;
  }

 private:
  static constexpr bool _is_known(int status) noexcept { return status >= 0 && status < 1000; }
  static constexpr std::size_t _index(int status) noexcept {
    return static_cast<std::size_t>(status);
  }
  static constexpr std::uint64_t _mask(int status) noexcept {
    return std::uint64_t{1} << (_index(status) % 64);
  }

  std::array<std::uint64_t, 16> _bits = {};  ///< One a status.
};

/// The fields of a `RetryPolicy`. Named apart so that a policy is written with the fields that
/// matter: `RetryPolicy({.attempts = 5, .timeout_s = 10})`.
struct RetryFields {
  /// Attempts in all, the first one included. Below 1 counts as 1.
  std::int64_t attempts = 3;

  /// Seconds to wait after the first failed attempt, doubled after each next one: with 0.5 the
  /// waits are 0.5, 1, 2, 4, … s. There is no jitter, and a server's Retry-After is not heeded. A
  /// value that is not above 0 waits for nothing.
  double backoff_s = 0.5;

  /// Seconds of silence that fail an attempt: no byte moved in either direction for so long, with
  /// name look-up, connecting and the TLS handshake together counted as one such stretch. An
  /// attempt that keeps moving bytes ends after 10 times as long. Infinity waits for ever; what is
  /// not above 0 counts as one millisecond.
  double timeout_s = 30.0;

  /// Statuses that are tried again. Timeouts and dropped connections always are; nothing else is.
  StatusSet retry_statuses = {429, {500, 599}};

  /// Sleeps through a backoff. An empty one stands for `wait_unless_stopped`.
  Wait wait = wait_unless_stopped;

  /// The point of `clock`, in seconds, by which the call has to end. It spans all attempts: each
  /// attempt's time is cut to what is left, also in the middle of a transfer, none starts once it
  /// has passed, and a backoff that would end after it is not begun: the call fails at once. Null
  /// and infinity set none; a value that is not a number has passed.
  std::optional<double> deadline = std::nullopt;

  /// Asked before every attempt, by the wait during every backoff, and before the call gives up
  /// because the deadline leaves no time for another attempt, so that a stop wins over a deadline.
  /// Not asked while an attempt is under way. Empty: never stops.
  StopTest should_stop = nullptr;

  /// What the deadline and the waits are measured on. It has to outlive the policy. Attempts
  /// themselves run on real time whatever the clock: sockets do.
  Clock* clock = &system_clock();
};

/// How a call is tried again: a record whose fields do not change after construction. To change
/// some, copy it with the changes:
///
///     policy.with([&](RetryFields& fields) { fields.deadline = deadline; })
class RetryPolicy {
 public:
  RetryPolicy() : RetryPolicy(RetryFields{}) {}
  explicit RetryPolicy(RetryFields fields) : _fields(std::move(fields)) {}

  const RetryFields* operator->() const noexcept { return &_fields; }

  template <std::invocable<RetryFields&> Change>
  RetryPolicy with(Change&& change) const {
    RetryFields changed = _fields;
    std::forward<Change>(change)(changed);
    return RetryPolicy(std::move(changed));
  }

 private:
  RetryFields _fields;
};

}  // namespace tovana::http
