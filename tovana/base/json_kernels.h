#pragma once

namespace tovana {

/// From now on simdjson parses while the process exits, too. It keeps its kernels, one for each kind
/// of processor, in static objects that are destroyed then, when other threads may still make
/// parsers; this hands out one of the same kind that never is. For the whole process; to be called
/// before the first parser is made, and as often as one likes. Throws std::bad_alloc.
void keep_json_kernels();

}  // namespace tovana
