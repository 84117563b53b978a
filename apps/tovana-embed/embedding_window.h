#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "run_limits.h"
#include "text_input.h"
#include "tovana/engines/embedding/backends/backend.h"

namespace tovana::tool {

/// The batches whose calls are under way, and those that came back before an earlier one: calls run
/// side by side on threads of the window's own, their results are taken in the order in which the
/// batches were added. Used by one thread.
///
/// It holds at most twice as many batches as calls run at once. Less would leave threads idle
/// behind a call that takes longer than the next ones, and nothing bounds how many more could come
/// back during a very slow one.
class EmbeddingWindow {
 public:
  /// Returns the vectors of one batch. Called from many threads at once, also while the window is
  /// being destroyed and after it: what it refers to, it owns.
  using Call = std::function<std::vector<embedding::Vector>(const std::vector<std::string>&)>;

  /// What came of a batch.
  struct Finished {
    InputTexts batch;
    std::vector<embedding::Vector> vectors;
    std::exception_ptr failure = nullptr;  ///< What the call threw; null: nothing.
  };

  enum class AfterFailure {
    stop,   ///< No further call begins; those under way go on.
    go_on,  ///< A batch that failed is one like any other.
  };

  /// At most `most_calls` run at once, of which there is one at least.
  EmbeddingWindow(std::size_t most_calls, Call call, AfterFailure after_failure);
  /// Begins no further call and waits for none: an attempt cannot be ended from outside, and the
  /// process is about to end.
  ~EmbeddingWindow();
  EmbeddingWindow(const EmbeddingWindow&) = delete;
  EmbeddingWindow& operator=(const EmbeddingWindow&) = delete;

  /// Whether there is a batch to take.
  bool is_empty() const;
  /// Whether to add another before one is taken. Not when calls no longer begin.
  bool has_room() const;

  /// Has the call of another batch begin as soon as a thread is free for it. There is room. Throws
  /// Failure (not_ready) when the process may have no thread.
  void add(InputTexts batch);

  /// The oldest batch, once its call has ended; there is one. Blocks until then, or until the user
  /// wants the run to end: throws Interrupted.
  Finished take(const RunLimits& limits);

 private:
  struct Calls;

  const std::size_t _most_calls;
  const std::shared_ptr<Calls> _calls;  ///< Shared with the threads.
  std::size_t _threads = 0;
};

}  // namespace tovana::tool
