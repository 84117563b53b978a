#pragma once

#include <cstddef>

namespace tovana::sentence_transformers {

/// Work in steps, one after the other, each of so many parts that may run in any order and at the
/// same time.
class SteppedWork {
 public:
  SteppedWork() = default;
  SteppedWork(const SteppedWork&) = delete;
  SteppedWork& operator=(const SteppedWork&) = delete;
  virtual ~SteppedWork() = default;

  /// Runs a part of a step, on any thread. Every part of the step before has been run.
  virtual void run(std::size_t step, std::size_t part) = 0;
};

/// Does the work on this thread and at most `threads - 1` helpers; returns when it is done. Throws
/// the first exception that a part threw; what had not begun by then is not run.
///
/// Nobody waits for a thread that has yet to begin: a part belongs to whoever takes it first, so
/// that a helper which the system does not let run costs nothing. It costs as much as a part takes
/// if it is stopped in the middle of one.
///
/// Helpers are the process's: threads that sleep when there has been nothing to do for some 40
/// microseconds, and are never more than the processors but one that the process may use. They help
/// as long as no more threads compute, those that call this included, than there are processors;
/// with more callers than that, each works by itself.
///
/// Threads: any number may call this at once. Safe while the process exits: that waits for nobody
/// here, and takes nothing away. Safe in a child, whenever it was forked: it has helpers of its own.
void run_steps(SteppedWork& work, std::size_t steps, std::size_t parts, std::size_t threads);

}  // namespace tovana::sentence_transformers
