#include <iostream>
#include <limits>

#include "tests/tovana/engines/hub/fake_hub.h"

/// Serves a folder as a repository of the tests' hub, prints the hub's URL and goes on until its
/// standard input ends.
/// Usage: serve_hub REPOSITORY FOLDER
int main(int argc, char** argv) {
  if (argc != 3) return 2;
  tovana::testing::FakeHub hub;
  hub.repo_id = argv[1];
  hub.add_folder(argv[2]);
  std::cout << hub.url() << std::endl;
  std::cin.ignore(std::numeric_limits<std::streamsize>::max());
}
