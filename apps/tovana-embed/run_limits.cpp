#include "run_limits.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <string>
#include <system_error>

#include <poll.h>

#include "failure.h"
#include "tovana/base/clock.h"

namespace tovana::tool {
namespace {

constexpr double kLongestPollS = 24.0 * 60 * 60;

std::string shortest(double value) {
  std::array<char, 32> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  return {digits.data(), end};
}

}  // namespace

RunLimits::RunLimits(const Interrupts& interrupts, double seconds)
    : _interrupts(interrupts), _seconds(seconds), _deadline(system_clock().now() + seconds) {}

void RunLimits::check_interrupted() const {
  if (should_stop()) throw Interrupted();
}

void RunLimits::check() const {
  check_interrupted();
  if (system_clock().now() >= _deadline) {
    throw Failure(ExitStatus::call_failed,
                  "the deadline of " + shortest(_seconds) +
                      " s has passed; give a longer --deadline or less input");
  }
}

void RunLimits::wait_for(int descriptor, short events) const {
  while (!_poll_for(descriptor, events, kLongestPollS)) {
  }
}

void RunLimits::pause(double seconds) const { _poll_for(-1, 0, seconds); }

bool RunLimits::_poll_for(int descriptor, short events, double longest_s) const {
  check();
  const double left = std::min(_deadline - system_clock().now(), longest_s);
  std::array<pollfd, 2> watched = {
      {{descriptor, events, 0}, {_interrupts.descriptor(), POLLIN, 0}}};
  const int ready =
      poll(watched.data(), watched.size(), std::max(0, static_cast<int>(std::ceil(left * 1000))));
  if (ready < 0 && errno != EINTR) {
    throw std::system_error(errno, std::generic_category(), "poll");
  }
  check_interrupted();
  return ready > 0 && watched[0].revents != 0;
}

}  // namespace tovana::tool
