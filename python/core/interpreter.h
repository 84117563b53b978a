#pragma once

#include <Python.h>

/// How threads come to the interpreter and leave it. Once it ends, CPython takes a thread that wants
/// it back apart, through frames of C++ that cannot be taken apart; so those that compute then never
/// ask for it again, and those that have it are waited for before it ends.
namespace tovana::python {

/// Lets other threads have the interpreter for as long as it lives. On a thread whose interpreter
/// has ended meanwhile the destructor does not return.
class WithoutInterpreter {
 public:
  WithoutInterpreter() noexcept : _thread(PyEval_SaveThread()) {}
  ~WithoutInterpreter();
  WithoutInterpreter(const WithoutInterpreter&) = delete;
  WithoutInterpreter& operator=(const WithoutInterpreter&) = delete;

 private:
  PyThreadState* _thread;
};

/// Has the interpreter for as long as it lives, on any thread, whether or not that had it before.
/// False when it has ended; then nothing of Python's may be touched.
class WithInterpreter {
 public:
  WithInterpreter() noexcept;
  ~WithInterpreter();
  WithInterpreter(const WithInterpreter&) = delete;
  WithInterpreter& operator=(const WithInterpreter&) = delete;

  explicit operator bool() const noexcept { return _is_there; }

 private:
  bool _is_there;
  PyGILState_STATE _state = {};
};

/// To be called by Python's `atexit`: from now on no thread but the calling one comes in, and those
/// that are in have left.
void interpreter_ends();

/// To be called in a forked child, before anything else: it has one thread.
void interpreter_was_forked() noexcept;

/// Runs the handlers of signals that came, on the main thread; throws what they raise,
/// KeyboardInterrupt for Ctrl-C. Has the interpreter.
void check_signals();

}  // namespace tovana::python
