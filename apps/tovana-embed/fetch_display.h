#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>

#include "tovana/base/clock.h"
#include "tovana/base/mutex.h"
#include "tovana/engines/hub/fetch_progress.h"

namespace tovana::tool {

/// Says on stderr how far the fetch of a model is: on a terminal a line with a bar, redrawn a few
/// times a second, and a line a file that is done; anywhere else the lines, and one every ten
/// seconds in between. Any thread may call it.
class FetchDisplay {
 public:
  using Write = std::function<void(const std::string& text)>;

  FetchDisplay(Clock& clock, bool is_terminal, Write write);

  void operator()(const hub::FetchProgress& progress) TOVANA_EXCLUDES(_mutex);

 private:
  struct Sample {
    double time;
    std::uint64_t bytes;
  };

  void draw(const hub::FetchProgress& progress, double now) TOVANA_REQUIRES(_mutex);
  void clear_line() TOVANA_REQUIRES(_mutex);
  std::string state(const hub::FetchProgress& progress) const TOVANA_REQUIRES(_mutex);

  Clock& _clock;
  const bool _is_terminal;
  const Write _write;
  Mutex _mutex;
  std::deque<Sample> _samples TOVANA_GUARDED_BY(_mutex);  ///< Of the last few seconds.
  double _next_drawing TOVANA_GUARDED_BY(_mutex) = 0;
  bool _is_begun TOVANA_GUARDED_BY(_mutex) = false;
  bool _is_line_drawn TOVANA_GUARDED_BY(_mutex) = false;
};

/// Shows every fetch of this process from now on.
void show_fetches();

}  // namespace tovana::tool
