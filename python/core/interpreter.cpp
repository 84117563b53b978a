#include "interpreter.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <nanobind/nanobind.h>

#include "tovana/base/held_across_forks.h"
#include "tovana/base/mutex.h"

namespace tovana::python {
namespace {

/// Threads that have the interpreter, or wait for it, by our doing.
std::atomic<int> visitors = 0;
std::atomic<bool> has_ended = false;
/// The one that ends the interpreter: what it still calls comes back to it.
std::atomic<std::thread::id> ending_thread = std::thread::id();

bool enter() noexcept {
  ++visitors;
  if (!has_ended || ending_thread.load() == std::this_thread::get_id()) return true;
  --visitors;
  return false;
}

void leave() noexcept { --visitors; }

#if PY_VERSION_HEX < 0x030C0000
/// Before Python 3.12 a child hangs within `os.fork` when another thread was just being made known
/// to the interpreter: the list of threads has a lock that is taken without the interpreter's, and
/// that the child waits for before it makes it anew.
constinit Mutex introducing;

const HeldAcrossForks<introducing> introducing_is_held_across_forks;

/// What PyGILState_Ensure does first on a thread that Python does not know, so that it finds it done.
void introduce_this_thread() noexcept {
  if (PyGILState_GetThisThreadState() != nullptr) return;
  const LockGuard guard(introducing);
  PyThreadState* const made = PyThreadState_New(PyInterpreterState_Main());
  if (made != nullptr) made->gilstate_counter = 0;  // or it would never be released
}
#else
void introduce_this_thread() noexcept {}
#endif

[[noreturn]] void wait_for_the_end_of_the_process() {
  for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

}  // namespace

WithoutInterpreter::~WithoutInterpreter() {
  if (!enter()) wait_for_the_end_of_the_process();
  PyEval_RestoreThread(_thread);
  leave();
}

WithInterpreter::WithInterpreter() noexcept : _is_there(enter()) {
  if (!_is_there) return;
  introduce_this_thread();
  _state = PyGILState_Ensure();
}

WithInterpreter::~WithInterpreter() {
  if (!_is_there) return;
  PyGILState_Release(_state);
  leave();
}

void interpreter_ends() {
  ending_thread = std::this_thread::get_id();
  has_ended = true;
  PyThreadState* const thread = PyEval_SaveThread();
  while (visitors > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  PyEval_RestoreThread(thread);
}

void interpreter_was_forked() noexcept { visitors = 0; }

void check_signals() {
  if (PyErr_CheckSignals() != 0) throw nanobind::python_error();
}

}  // namespace tovana::python
