#include "interpreter.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <nanobind/nanobind.h>

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
  if (_is_there) _state = PyGILState_Ensure();
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
