#pragma once

#include <mutex>

namespace tovana::sentence_transformers {

/// For the length of a scope, this thread opens libtorch, and no other does.
///
/// `exit` waits for whoever holds the lock of the dynamic loader, and opening libtorch holds it for
/// as long as the disk takes to bring it. So an `exit` that comes meanwhile waits for at most a
/// second, and then is cut short: the streams are flushed as `exit` itself flushes them, and the
/// process ends there with its status. What a host gives up for that, in this case only, are the
/// exit handlers and destructors of statics that it registered before the model library was first
/// opened. In a forked child it is the same with an opening that its parent had under way: it never
/// ends there.
///
/// At any other moment, in the load of a model or in an encode, `exit` neither waits nor cuts
/// anything short: libtorch destroys nothing then (undestroyed_statics.h).
class OpeningGuard {
 public:
  /// Waits for a thread that is opening it. Throws RuntimeError when the process has begun to exit.
  OpeningGuard();

 private:
  std::unique_lock<std::timed_mutex> _lock;
};

}  // namespace tovana::sentence_transformers
