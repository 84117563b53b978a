#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "subprocess.h"
#include "tests/support/temp_folder.h"

namespace tovana::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

/// The model's files as a fetch leaves them in the hub's cache: blobs, and a snapshot of links to
/// them.
void lay_out_cache(const fs::path& root, const fs::path& model) {
  const std::string commit(40, 'c');
  const fs::path repository = root / "models--sentence-transformers--all-MiniLM-L6-v2";
  fs::create_directories(repository / "blobs");
  write_file(repository / "refs/main", commit);
  for (const char* absent : {"added_tokens.json", "2_Normalize/config.json"}) {
    write_file(repository / ".no_exist" / commit / absent, "");
  }
  int number = 0;
  for (const auto& entry : fs::recursive_directory_iterator(model)) {
    if (!entry.is_regular_file()) continue;
    const fs::path name = fs::relative(entry.path(), model);
    const std::string blob = std::to_string(1000 + number++) + std::string(36, 'b');
    fs::copy_file(entry.path(), repository / "blobs" / blob);
    const fs::path link = repository / "snapshots" / commit / name;
    fs::create_directories(link.parent_path());
    fs::create_symlink(fs::relative(repository / "blobs" / blob, link.parent_path()), link);
  }
}

std::vector<fs::path> contents(const fs::path& folder) {
  std::vector<fs::path> paths;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) paths.push_back(entry.path());
  std::ranges::sort(paths);
  return paths;
}

TEST(TovanaEmbedLocalModel, PrintsPythonsVectorsFromTheHubsCache) {
  const TempFolder cache;
  lay_out_cache(cache.path(), TOVANA_MINILM_DIR);
  const std::vector<fs::path> before = contents(cache.path());
  std::ifstream file(TOVANA_MINILM_REFERENCE);
  std::vector<json> references;
  std::string input;
  for (std::string line; std::getline(file, line);) {
    references.push_back(json::parse(line));
    input += json{{"text", references.back().at("text")}}.dump() + "\n";
  }
  ASSERT_EQ(references.size(), 205U);

  // No home, no network that a proxy would lead to: all there is is the cache.
  const ProcessResult result =
      run({"/usr/bin/env", "-i", "HF_HUB_CACHE=" + cache.path().string(),
           "https_proxy=http://127.0.0.1:1", TOVANA_EMBED_PATH, "embed", "--backend", "local",
           "--model", "all-MiniLM-L6-v2", "--jsonl", "--log-level", "info"},
          input);
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.errors.ends_with("Loaded sentence-transformers model: all-MiniLM-L6-v2\n"))
      << result.errors;
  EXPECT_EQ(std::ranges::count(result.errors, '\n'), 1) << result.errors;
  EXPECT_EQ(contents(cache.path()), before);

  std::istringstream lines(result.output);
  for (const json& reference : references) {
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    const auto vector = json::parse(line).at("vector").get<std::vector<double>>();
    const auto expected = reference.at("embedding").get<std::vector<double>>();
    ASSERT_EQ(vector.size(), expected.size());
    double largest = 0;
    for (std::size_t i = 0; i < vector.size(); ++i) {
      largest = std::max(largest, std::abs(vector[i] - expected[i]));
    }
    EXPECT_LE(largest, 2e-6) << reference.at("name");
  }
}

}  // namespace
}  // namespace tovana::testing
