#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fake_hub.h"
#include "subprocess.h"
#include "tests/support/temp_folder.h"

namespace tovana::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::vector<fs::path> contents(const fs::path& folder) {
  std::vector<fs::path> paths;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) paths.push_back(entry.path());
  std::ranges::sort(paths);
  return paths;
}

TEST(TovanaEmbedLocalModel, FetchesTheModelOnceAndPrintsPythonsVectors) {
  const TempFolder cache;
  FakeHub hub;
  hub.repo_id = "sentence-transformers/all-MiniLM-L6-v2";
  hub.add_folder(TOVANA_MINILM_DIR);
  const auto embed = [&](const std::string& arguments, const std::string& input) {
    return run(tool({"HF_ENDPOINT=" + hub.url(), "HF_HUB_CACHE=" + cache.path().string()},
                    split("embed --backend local --model all-MiniLM-L6-v2 " + arguments)),
               input);
  };
  const ProcessResult fetched = embed("a", "");
  EXPECT_EQ(fetched.status, 0) << fetched.errors;
  EXPECT_NE(fetched.errors.find("  model.safetensors: 90.9 MB\n"), std::string::npos)
      << fetched.errors;
  const std::vector<fs::path> before = contents(cache.path());
  const std::size_t requests = hub.hub().requests().size();

  std::ifstream file(TOVANA_MINILM_REFERENCE);
  std::vector<json> references;
  std::string input;
  for (std::string line; std::getline(file, line);) {
    references.push_back(json::parse(line));
    input += json{{"text", references.back().at("text")}}.dump() + "\n";
  }
  ASSERT_EQ(references.size(), 205U);

  const ProcessResult result = embed("--jsonl --log-level info", input);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors.find("fetching"), std::string::npos) << result.errors;
  EXPECT_EQ(contents(cache.path()), before);
  EXPECT_EQ(hub.hub().requests().size(), requests);

  const std::vector<std::string> lines = split(result.output, '\n');
  ASSERT_EQ(lines.size(), references.size());
  for (std::size_t line = 0; line < lines.size(); ++line) {
    const auto vector = json::parse(lines[line]).at("vector").get<std::vector<double>>();
    const auto expected = references[line].at("embedding").get<std::vector<double>>();
    ASSERT_EQ(vector.size(), expected.size());
    double largest = 0;
    for (std::size_t i = 0; i < vector.size(); ++i) {
      largest = std::max(largest, std::abs(vector[i] - expected[i]));
    }
    EXPECT_LE(largest, 2e-6) << references[line].at("name");
  }
}

}  // namespace
}  // namespace tovana::testing
