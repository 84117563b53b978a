#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <string>

#include "fake_hub.h"

/// Serves a folder as a repository of the tests' hub, prints the hub's URL and goes on until its
/// standard input ends.
/// Usage: serve_hub REPOSITORY FOLDER
int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  if (argc != 3) return 2;
  tovana::testing::FakeHub hub;
  hub.repo_id = argv[1];
  hub.mentions_xet = false;  // its store speaks plain HTTP only
  for (const auto& entry : fs::recursive_directory_iterator(argv[2])) {
    if (!fs::is_regular_file(entry)) continue;
    std::ifstream stream(entry.path(), std::ios::binary);
    tovana::testing::FakeHub::File file{.content = {std::istreambuf_iterator<char>(stream), {}},
                                        .is_large = entry.path().extension() == ".safetensors"};
    file.id = tovana::testing::FakeHub::id_of(file);
    hub.files[fs::relative(entry.path(), argv[2]).string()] = std::move(file);
  }
  std::cout << hub.url() << std::endl;
  std::cin.ignore(std::numeric_limits<std::streamsize>::max());
}
