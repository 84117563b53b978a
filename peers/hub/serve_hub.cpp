#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>

#include "tests/tovana/engines/hub/fake_hub.h"

/// Serves a folder as a repository of the tests' hub, prints the hub's URL and goes on until its
/// standard input ends. Safetensors are large files.
/// Usage: serve_hub REPOSITORY FOLDER
int main(int argc, char** argv) {
  using tovana::testing::FakeHub;
  if (argc != 3) return 2;
  FakeHub hub;
  hub.repo_id = argv[1];
  for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[2])) {
    if (!entry.is_regular_file()) continue;
    std::ifstream stream(entry.path(), std::ios::binary);
    FakeHub::File& file = hub.files[entry.path().lexically_relative(argv[2]).string()];
    file.content.assign(std::istreambuf_iterator<char>(stream), {});
    file.is_large = entry.path().extension() == ".safetensors";
    file.id = FakeHub::id_of(file);
  }
  std::cout << hub.url() << std::endl;
  std::cin.ignore(std::numeric_limits<std::streamsize>::max());
}
