#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The hashing embedder read plainly, step by step over UTF-32 with maps, to hold the fast one
/// against.
namespace tovana::embedding::plain {

std::vector<std::string> tokenize(const std::string& text);
std::vector<std::vector<double>> embed(const std::vector<std::string>& texts,
                                       std::int64_t dimension);

}  // namespace tovana::embedding::plain
