#include "tovana/engines/hub/partial_blob.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tovana::hub {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kReadBytes = std::size_t{1} << 20U;

/// The disk begins to write in steps of this size, so that waiting for it in the end is short.
constexpr std::uint64_t kFlushBytes = std::uint64_t{8} << 20U;

/// Hashes a file's first bytes, up to `most`; returns how many there were.
std::uint64_t hash_file(int descriptor, std::uint64_t most, ContentHash& hash) {
  const auto buffer = std::make_unique<char[]>(kReadBytes);
  std::uint64_t size = 0;
  while (size < most) {
    const auto wanted = std::min<std::uint64_t>(kReadBytes, most - size);
    const ssize_t got = ::pread(descriptor, buffer.get(), wanted, static_cast<off_t>(size));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    hash.update({buffer.get(), static_cast<std::size_t>(got)});
    size += static_cast<std::uint64_t>(got);
  }
  return size;
}

/// What fetches of `blob` left behind: the longest file first.
std::vector<fs::path> incomplete_files(const fs::path& blob) {
  std::vector<std::pair<std::uintmax_t, fs::path>> found;
  const std::string prefix = blob.filename().string() + ".";
  std::error_code error;
  for (fs::directory_iterator entry(blob.parent_path(), error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (!name.starts_with(prefix) || !name.ends_with(kIncompleteSuffix)) continue;
    std::error_code unknown;
    const std::uintmax_t size = entry->is_regular_file(unknown) ? entry->file_size(unknown) : 0;
    found.emplace_back(unknown ? 0 : size, entry->path());
  }
  std::ranges::sort(found, std::greater<>());
  std::vector<fs::path> paths;
  paths.reserve(found.size());
  for (auto& [size, path] : found) paths.push_back(std::move(path));
  return paths;
}

/// The file to go on with, if there is one; the others go.
std::optional<NewFile> adopt(const fs::path& blob) {
  std::optional<NewFile> adopted;
  for (const fs::path& path : incomplete_files(blob)) {
    if (!adopted) {
      Descriptor opened(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
      if (opened.is_open()) {
        adopted = NewFile{path, std::move(opened)};
        continue;
      }
    }
    std::error_code ignored;
    fs::remove(path, ignored);
  }
  return adopted;
}

NewFile adopt_or_make(const fs::path& blob, bool is_alone) {
  std::optional<NewFile> adopted = is_alone ? adopt(blob) : std::nullopt;
  return adopted ? std::move(*adopted) : make_incomplete_file(blob);
}

}  // namespace

PartialBlob::PartialBlob(fs::path blob, const ListedFile& file, bool is_alone)
    : _blob(std::move(blob)),
      _file(file),
      _is_kept(is_alone),
      _partial(adopt_or_make(_blob, is_alone)),
      _hash(_file.id, _file.size),
      _size(hash_file(_partial.descriptor.get(), _file.size, _hash)) {
  _cut_to(_size);
}

PartialBlob::~PartialBlob() {
  if (_is_finished || (_is_kept && _size > 0)) return;
  std::error_code ignored;
  fs::remove(_partial.path, ignored);
}

void PartialBlob::append(std::string_view bytes) {
  const int descriptor = _partial.descriptor.get();
  write_all(descriptor, bytes, _partial.path);
  _hash.update(bytes);
  _size += bytes.size();
  if (_size - _flushed < kFlushBytes) return;
  // A hint: what it says of failures is said again by the sync in the end.
  static_cast<void>(::sync_file_range(descriptor, static_cast<off64_t>(_flushed),
                                      static_cast<off64_t>(_size - _flushed),
                                      SYNC_FILE_RANGE_WRITE));
  _flushed = _size;
}

void PartialBlob::restart() {
  _cut_to(0);
  _hash = ContentHash(_file.id, _file.size);
  _size = 0;
  _flushed = 0;
}

bool PartialBlob::finish() {
  if (_hash.finish() != _file.id) {
    restart();
    return false;
  }
  sync_file(_partial.descriptor.get(), _partial.path);
  rename_file(_partial.path, _blob);
  _is_finished = true;
  return true;
}

void PartialBlob::_cut_to(std::uint64_t size) {
  const int descriptor = _partial.descriptor.get();
  const auto offset = static_cast<off_t>(size);
  if (::ftruncate(descriptor, offset) != 0 || ::lseek(descriptor, offset, SEEK_SET) < 0) {
    throw_not_writable(_partial.path);
  }
}

std::uint64_t unfinished_bytes(const fs::path& blob) {
  const std::vector<fs::path> files = incomplete_files(blob);
  std::error_code error;
  const std::uintmax_t size = files.empty() ? 0 : fs::file_size(files.front(), error);
  return error ? 0 : size;
}

bool holds_content(const fs::path& path, const ListedFile& file) {
  const Descriptor opened(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  if (!opened.is_open() || ::fstat(opened.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      static_cast<std::uint64_t>(status.st_size) != file.size) {
    return false;
  }
  ContentHash hash(file.id, file.size);
  return hash_file(opened.get(), file.size, hash) == file.size && hash.finish() == file.id;
}

}  // namespace tovana::hub
