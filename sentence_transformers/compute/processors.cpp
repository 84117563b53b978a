#include "sentence_transformers/compute/processors.h"

#include <algorithm>

#include <sched.h>

namespace tovana::sentence_transformers {

std::size_t usable_processors() noexcept {
  // As many as Linux can be built for; it refuses a set that is smaller than its own.
  cpu_set_t usable[8192 / CPU_SETSIZE] = {};
  if (sched_getaffinity(0, sizeof(usable), usable) != 0) return 1;
  return static_cast<std::size_t>(std::max(CPU_COUNT_S(sizeof(usable), usable), 1));
}

}  // namespace tovana::sentence_transformers
