#include <cstddef>
#include <exception>
#include <iostream>
#include <string>

#include <nlohmann/json.hpp>

#include "sentence_transformers/tokenizer/tokenizer.h"
#include "tovana/files/model_directory.h"

/// Writes the ids of texts, for compare.py: standard input is a JSON string a line, standard output
/// an array of ids a line.
///
///     encode_lines MODEL_DIRECTORY MAX_LENGTH LOWERCASE_FIRST(0|1)
int main(int argc, char** argv) {
  using namespace tovana::sentence_transformers;
  if (argc != 4) {
    std::cerr << "usage: encode_lines MODEL_DIRECTORY MAX_LENGTH LOWERCASE_FIRST\n";
    return 64;
  }
  try {
    const Tokenizer tokenizer = Tokenizer::load(tovana::files::ModelDirectory(argv[1]),
                                                {.lowercase_first = argv[3][0] == '1'});
    const std::size_t max_length = std::stoul(argv[2]);
    for (std::string line; std::getline(std::cin, line);) {
      const std::string text = nlohmann::json::parse(line).get<std::string>();
      std::cout << nlohmann::json(tokenizer.encode(text, max_length)) << '\n';
    }
  } catch (const std::exception& error) {
    std::cerr << "encode_lines: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
