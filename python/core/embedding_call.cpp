#include "embedding_call.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <iterator>
#include <mutex>
#include <span>
#include <utility>

#include "interpreter.h"
#include "tovana/base/background_thread.h"

namespace tovana::python {
namespace {

using embedding::Vector;

/// What a call on a thread of its own and whoever waits for it share.
struct CallApart {
  CallApart(SharedEngine with, std::vector<std::string> of, double until)
      : engine(std::move(with)), texts(std::move(of)), deadline(until) {}

  const SharedEngine engine;
  const std::vector<std::string> texts;
  const double deadline;
  std::atomic<bool> is_stopped = false;

  std::mutex lock;
  std::condition_variable ended;
  bool has_ended = false;
  std::vector<Vector> vectors;
  std::exception_ptr failure;

  void run() noexcept {
    std::vector<Vector> made;
    std::exception_ptr thrown;
    try {
      made = engine->embed(texts, {.wait = false,
                                   .should_stop = [this] { return is_stopped.load(); },
                                   .deadline = deadline});
    } catch (...) {
      thrown = std::current_exception();
    }
    const std::lock_guard held(lock);
    vectors = std::move(made);
    failure = std::move(thrown);
    has_ended = true;
    ended.notify_all();
  }

  bool wait_a_slice() {
    std::unique_lock held(lock);
    return ended.wait_for(held, std::chrono::duration<double>(CallLimits::kSliceS),
                          [this] { return has_ended; });
  }
};

/// Vectors that are freed while other threads have the interpreter: of a large call that takes long.
struct FreedApart {
  std::vector<Vector> vectors;

  explicit FreedApart(std::vector<Vector> of) : vectors(std::move(of)) {}
  ~FreedApart() {
    const WithoutInterpreter others_may_run;
    vectors = {};
  }
  FreedApart(const FreedApart&) = delete;
  FreedApart& operator=(const FreedApart&) = delete;
};

/// Tells a call that nobody waits for it any more.
class StopAtReturn {
 public:
  explicit StopAtReturn(CallApart& call) : _call(call) {}
  ~StopAtReturn() { _call.is_stopped = true; }
  StopAtReturn(const StopAtReturn&) = delete;
  StopAtReturn& operator=(const StopAtReturn&) = delete;

 private:
  CallApart& _call;
};

}  // namespace

void embed_in_parts(embedding::LocalEmbeddingBackend& model, std::vector<std::string> texts,
                    const embedding::PromptOptions& prompt, embedding::CallPace& pace,
                    const CallLimits& limits, VectorArray& array,
                    std::vector<std::uint32_t>* token_counts) {
  for (std::size_t first = 0; first < texts.size();) {
    limits.check();
    const auto begin = std::make_move_iterator(texts.begin() + static_cast<std::ptrdiff_t>(first));
    const auto count = static_cast<std::ptrdiff_t>(pace.next(std::span(texts).subspan(first)));
    const std::vector<std::string> part(begin, begin + count);
    first += part.size();
    std::vector<Vector> vectors;
    {
      const WithoutInterpreter others_may_run;
      const double start = system_clock().now();
      vectors = model.embed(part, prompt, token_counts);
      pace.took(part, system_clock().now() - start);
    }
    array.add(vectors);
  }
}

void embed_at_once(const SharedEngine& engine, const std::vector<std::string>& texts,
                   VectorArray& array) {
  std::vector<Vector> vectors;
  {
    const WithoutInterpreter others_may_run;
    vectors = engine->embed(texts, {.wait = false});
  }
  array.add(vectors);
}

void embed_apart(const SharedEngine& engine, std::vector<std::string> texts, bool is_bounded,
                 const CallLimits& limits, VectorArray& array) {
  const auto call = std::make_shared<CallApart>(engine, std::move(texts), limits.deadline());
  const StopAtReturn stop(*call);
  start_background_thread("tovana-call", [call] { call->run(); });
  const auto check = [&] { is_bounded ? limits.check_stopped() : limits.check(); };
  for (;;) {
    bool has_ended = false;
    {
      const WithoutInterpreter others_may_run;
      has_ended = call->wait_a_slice();
    }
    if (has_ended) break;
    check();
  }
  if (call->failure != nullptr) std::rethrow_exception(call->failure);
  const FreedApart made(std::move(call->vectors));
  constexpr std::size_t kAtATime = 1 << 14;
  for (std::span<const Vector> left = made.vectors; !left.empty();) {
    check();
    const std::size_t count = std::min(kAtATime, left.size());
    array.add(left.first(count));
    left = left.subspan(count);
  }
}

}  // namespace tovana::python
