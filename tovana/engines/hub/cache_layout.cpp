#include "tovana/engines/hub/cache_layout.h"

#include <algorithm>

#include "tovana/base/text.h"

namespace tovana::hub {
namespace {

bool is_lower_hex(std::string_view text) {
  return text.find_first_not_of(kHexDigits) == std::string_view::npos;
}

}  // namespace

std::string repository_folder_name(std::string_view repo_id) {
  std::string name(kRepositoryPrefix);
  for (const char c : repo_id) {
    if (c == '/') {
      name += "--";
    } else {
      name += c;
    }
  }
  return name;
}

std::filesystem::path trusted_folder(const std::filesystem::path& root,
                                     const std::filesystem::path& repository) {
  const std::filesystem::path cache = std::filesystem::canonical(root);
  const std::filesystem::path folder = std::filesystem::canonical(repository);
  return lies_in(folder, cache) ? cache : folder;
}

bool lies_in(const std::filesystem::path& path, const std::filesystem::path& folder) {
  return std::ranges::mismatch(folder, path).in1 == folder.end();
}

bool is_commit(std::string_view text) noexcept { return text.size() == 40 && is_lower_hex(text); }

bool is_content_id(std::string_view text) noexcept {
  return (text.size() == 40 || text.size() == 64) && is_lower_hex(text);
}

}  // namespace tovana::hub
