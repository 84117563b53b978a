#include "interrupts.h"

#include <cerrno>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "failure.h"
#include "tovana/base/platform.h"

namespace tovana::tool {
namespace {

constexpr double kGraceS = 1;

bool is_ignored(int signal_number) {
  struct sigaction action {};
  return sigaction(signal_number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

std::array<int, 2> make_pipe() {
  std::array<int, 2> ends = {-1, -1};
  if (pipe(ends.data()) != 0) {
    throw Failure(ExitStatus::call_failed,
                  "cannot begin: " + system_reason(errno) +
                      "; let the process open more files, as with ulimit -n");
  }
  for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
  return ends;
}

}  // namespace

Interrupts::Interrupts(std::function<void()> discard_unfinished)
    : _discard_unfinished(std::move(discard_unfinished)), _pipe(make_pipe()) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
    if (!is_ignored(signal_number)) sigaddset(&signals, signal_number);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([this, signals] { wait_for_signals(signals); }).detach();
}

void Interrupts::on_request(std::function<void()> action) const {
  {
    const LockGuard guard(_lock);
    // Of a signal and an action that come at the same moment, the second one finds the first.
    if (action) _action = std::move(action);
    if (!_requested) return;
    action = std::move(_action);
    _action = nullptr;
  }
  if (action) action();
}

void Interrupts::wait_for_signals(const sigset_t& signals) {
  int received = 0;
  while (sigwait(&signals, &received) != 0) {
  }
  _requested = true;
  static_cast<void>(!write(_pipe[1], "", 1));  // a pipe has room for one byte
  on_request({});
  take_signal(signals, kGraceS);
  _discard_unfinished();
  // Nothing is flushed: the thread that holds a stream's lock may be the one that does not end.
  _exit(static_cast<int>(ExitStatus::interrupted));
}

}  // namespace tovana::tool
