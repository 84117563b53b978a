#pragma once

#include <cstdio>
#include <exception>

namespace tovana::bench {

/// The `main` of a program that takes `count` arguments and gives them to `body`; the exit status.
template <class Body>
int run_program(int argc, char** argv, int count, const char* usage, Body&& body) {
  try {
    if (argc == count + 1) {
      body(argv + 1);
      return 0;
    }
    std::fprintf(stderr, "usage: %s\n", usage);
    return 64;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
}

}  // namespace tovana::bench
