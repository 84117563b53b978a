#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

#include <unistd.h>

#include "tovana/base/logging.h"
#include "tovana/engines/hub/fetch_model.h"

/// Fetches a model: a process that may be killed in the midst of it.
/// Usage: fetch_once ENDPOINT CACHE MODEL [MICROSECONDS], after which it kills itself; 0 is never.
int main(int argc, char** argv) {
  using namespace tovana::hub;
  if (argc < 4) return 2;
  if (const auto delay = argc > 4 ? static_cast<useconds_t>(std::atoi(argv[4])) : 0; delay > 0) {
    std::thread([delay] {
      ::usleep(delay);
      std::raise(SIGKILL);
    }).detach();
  }
  try {
    tovana::set_log_level(tovana::LogLevel::warning);
    FetchOptions options;
    options.hub.endpoint = argv[1];
    fetch_model(parse_model_name(argv[3]), {.root = argv[2]}, options);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
