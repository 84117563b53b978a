#pragma once

#include <chrono>
#include <cstdio>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

/// Our side of a comparison with a peer: a program that does one round whenever asked, so that the
/// rounds of all sides can alternate on the same machine in the same minute.
namespace tovana::bench {

/// Reads its arguments from the rest of the line; the answer is a line of these numbers.
using Round = std::function<std::vector<double>(std::istream& arguments)>;

/// Answers the requests on standard input, one a line, each the name of a round and its arguments.
/// Returns at the input's end; throws for a request that is unknown or lacks arguments.
inline void serve_rounds(const std::map<std::string, Round>& rounds) {
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream request(line);
    std::string name;
    request >> name;
    const auto round = rounds.find(name);
    if (round == rounds.end()) throw std::runtime_error("unknown request '" + line + "'");
    request.exceptions(std::ios::failbit);
    for (const double number : round->second(request)) std::printf("%.9f ", number);
    std::printf("\n");
    std::fflush(stdout);
  }
}

/// The time that the work takes; what it returns is destroyed after the clock has stopped.
template <class Work>
double seconds_of(Work&& work) {
  const auto begin = std::chrono::steady_clock::now();
  [[maybe_unused]] const auto kept = work();
  const auto end = std::chrono::steady_clock::now();
  return std::chrono::duration<double>(end - begin).count();
}

}  // namespace tovana::bench
