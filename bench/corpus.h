#pragma once

#include <cstddef>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tovana::bench {

/// The texts of a file that bench/symbol_descriptions.py wrote, one a line. Throws when there are
/// none.
inline std::vector<std::string> read_corpus(const std::string& path) {
  std::ifstream file(path);
  std::vector<std::string> texts;
  for (std::string line; std::getline(file, line);) texts.push_back(line);
  if (texts.empty()) {
    throw std::runtime_error("no texts in '" + path +
                             "'; make it with bench/symbol_descriptions.py");
  }
  return texts;
}

inline std::size_t total_size(const std::vector<std::string>& texts) {
  std::size_t size = 0;
  for (const std::string& text : texts) size += text.size();
  return size;
}

}  // namespace tovana::bench
