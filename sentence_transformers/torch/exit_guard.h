#pragma once

/// Lets the process exit at any moment of a call into the model library, with its own exit status
/// and without a crash.
///
/// `exit` destroys the statics of every library, those of libtorch too, while other threads still
/// compute with them, and then waits for a dlopen that is under way. So where a call is in flight,
/// `exit` is cut short: the streams are flushed as `exit` itself flushes them, and the process ends
/// there with its status. What a host gives up for that, in this case only, are the exit handlers
/// and destructors of statics that it registered before.
///
/// It takes part once a thread is protected, below. Whatever ends the process otherwise (`_exit`,
/// `quick_exit`, a signal) runs no destructors and needs nothing.
namespace tovana::sentence_transformers {

/// Makes an `exit` that this thread calls, or that follows its return from main, safe from now on.
/// The main thread is protected from the start, and every thread that computes with a local model
/// from then on. Another thread that may end the process while a model loads, or the main thread
/// where it was not the one that loaded a shared library with this component, calls it itself,
/// early. Unprotected, its exit is safe while others encode; while others load it may destroy
/// statics that have just come to life, and in rare cases crash over that.
///
/// The first call of a thread takes the lock of the dynamic loader, and so waits for any library
/// that somebody opens at that moment; therefore no operation that promises not to wait makes it.
/// It does not wait for a model's load: while one is under way it does nothing, and a later call
/// makes up for that. Once done it costs a look at a thread-local variable.
void protect_exit_of_this_thread() noexcept;

/// For the length of a scope, this thread is in a call into the model library. Calls may nest and
/// run on any number of threads.
class CallInFlight {
 public:
  /// `loading` runs code that may register exit handlers: opening a library, setting up a model.
  enum class Kind { loading, computing };

  /// Throws RuntimeError when the process has begun to exit: the library's statics may be gone.
  explicit CallInFlight(Kind kind);
  ~CallInFlight();
  CallInFlight(const CallInFlight&) = delete;
  CallInFlight& operator=(const CallInFlight&) = delete;

 private:
  const Kind _kind;
};

}  // namespace tovana::sentence_transformers
