#include "tovana/base/background_thread.h"

#include <csignal>
#include <thread>
#include <utility>

#include "tovana/base/platform.h"

namespace tovana {
namespace {

/// Keeps all signals from the thread that holds it, and from those that it starts meanwhile.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &_before);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t _before{};
};

}  // namespace

void start_background_thread(const char* name, std::function<void()> body) {
  const SignalsBlocked signals_blocked;
  std::thread([name, body = std::move(body)] {
    name_this_thread(name);
    body();
  }).detach();
}

}  // namespace tovana
