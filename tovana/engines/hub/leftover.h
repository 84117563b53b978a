#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>
#include <vector>

/// What fetches leave behind in the cache when they end before their time: files *.incomplete.
///
/// Whether somebody is still writing to such a file cannot be known from a lock, since there are
/// file systems that grant every lock to everybody. So age decides: whoever writes changes the
/// file's time, and a fetch that gives its file up in order makes it as old as can be. Times are
/// compared with that of a file made just now in the same folder, and so by the one clock that
/// stamped both, which may be another machine's.
namespace tovana::hub {

struct Leftover {
  std::filesystem::path path;
  std::uint64_t size = 0;
  /// Its writer has given it up, and nobody has it open any more; or it has been left alone for a
  /// minute.
  bool is_abandoned = false;
};

/// The files of `folder` whose names begin with `prefix`, the longest first; `fresh` is a file made
/// there just now, which is passed over; without one only what was released counts as abandoned.
/// Empty where the folder cannot be read.
std::vector<Leftover> leftovers(const std::filesystem::path& folder, std::string_view prefix,
                                int fresh = -1);

/// Gives up a file that this process alone has been writing to. Fails silently: then it is left
/// alone for a minute.
void release(int descriptor) noexcept;

/// Makes a file new. Fails silently.
void renew(int descriptor) noexcept;

}  // namespace tovana::hub
