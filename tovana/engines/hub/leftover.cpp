#include "tovana/engines/hub/leftover.h"

#include <algorithm>
#include <functional>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>

#include "tovana/engines/hub/durable_file.h"

namespace tovana::hub {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kAbandonedAfterS = 60;
constexpr std::int64_t kReleasedAt = 0;

}  // namespace

std::vector<Leftover> leftovers(const fs::path& folder, std::string_view prefix, int fresh) {
  struct stat now = {};
  if (fresh >= 0 && ::fstat(fresh, &now) != 0) return {};
  std::vector<Leftover> found;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (!name.starts_with(prefix) || !name.ends_with(kIncompleteSuffix)) continue;
    struct stat file = {};
    if (::lstat(entry->path().c_str(), &file) != 0 || S_ISDIR(file.st_mode)) continue;
    if (file.st_ino == now.st_ino) continue;
    found.push_back({.path = entry->path(),
                     .size = S_ISREG(file.st_mode) ? static_cast<std::uint64_t>(file.st_size) : 0,
                     .is_abandoned = file.st_mtime == kReleasedAt ||
                                     file.st_mtime <= now.st_mtime - kAbandonedAfterS});
  }
  std::ranges::sort(found, std::greater<>(), &Leftover::size);
  return found;
}

void release(int descriptor) noexcept {
  const timespec released = {.tv_sec = kReleasedAt, .tv_nsec = 0};
  const timespec times[] = {released, released};
  static_cast<void>(::futimens(descriptor, times));
}

void renew(int descriptor) noexcept { static_cast<void>(::futimens(descriptor, nullptr)); }

}  // namespace tovana::hub
