#include "fetch_log.h"

#include <atomic>
#include <cstdint>

#include "tovana/base/clock.h"
#include "tovana/base/logging.h"
#include "tovana/engines/hub/fetch_progress.h"

namespace tovana::python {
namespace {

using hub::FetchProgress;

constexpr Logger log("engines.hub");
constexpr double kPauseS = 2;

/// When the next record may come, of whichever fetch.
std::atomic<double> due = 0;

/// Of all that come at once, one.
bool is_due() {
  const double now = system_clock().now();
  double last_due = due;
  return now >= last_due && due.compare_exchange_strong(last_due, now + kPauseS);
}

double megabytes(std::uint64_t bytes) { return static_cast<double>(bytes) / 1e6; }

void log_moment(const FetchProgress& progress) {
  if (progress.is_over) {
    due = 0;
  } else if (progress.size > 0) {
    if (!is_due()) return;
    log.info("Fetching the model %s: %.1f of %.1f MB", progress.model, megabytes(progress.bytes),
             megabytes(progress.size));
  } else if (!progress.asked_host.empty() && is_due()) {
    log.info("Fetching the model %s from %s", progress.model, progress.asked_host);
  }
}

}  // namespace

void log_fetches() { hub::set_fetch_observer(log_moment); }

}  // namespace tovana::python
