#include "tovana/files/file_handle.h"

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

#include "tovana/base/platform.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_files_error.h"

namespace tovana::files {
namespace {

struct stat status_of(int descriptor, const std::string& path) {
  struct stat status = {};
  if (fstat(descriptor, &status) != 0) {
    throw RuntimeError(path + ": cannot be examined: " + std::strerror(errno));
  }
  return status;
}

}  // namespace

// The other constructor is done before the body begins, so the destructor closes what the body
// gives up on.
FileHandle::FileHandle(int descriptor, std::string path) : FileHandle(std::move(path), descriptor) {
  const struct stat status = status_of(_descriptor, _path);
  if (!S_ISREG(status.st_mode)) throw ModelFilesError(_path + ": not a regular file");
  _size = static_cast<std::uint64_t>(status.st_size);
  _modified = modification_time(status);
}

FileHandle& FileHandle::operator=(FileHandle&& other) noexcept {
  std::swap(_descriptor, other._descriptor);
  _path.swap(other._path);
  _size = other._size;
  _modified = other._modified;
  return *this;
}

FileHandle::~FileHandle() {
  if (_descriptor >= 0) close(_descriptor);
}

void FileHandle::read(std::uint64_t offset, std::span<std::byte> bytes) const {
  while (!bytes.empty()) {
    const ssize_t got = pread(_descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw RuntimeError(_path + ": cannot be read: " + std::strerror(errno));
    if (got == 0) {
      check_unchanged();
      throw RuntimeError(_path + ": ends at byte " + std::to_string(offset));
    }
    bytes = bytes.subspan(static_cast<std::size_t>(got));
    offset += static_cast<std::uint64_t>(got);
  }
}

void FileHandle::read_all(std::span<std::byte> bytes) const {
  read(0, bytes);
  check_unchanged();
}

void FileHandle::check_unchanged() const {
  const struct stat status = status_of(_descriptor, _path);
  if (static_cast<std::uint64_t>(status.st_size) != _size) {
    throw RuntimeError(_path + ": changed while it was read, from " + std::to_string(_size) +
                       " to " + std::to_string(status.st_size) + " bytes: try again");
  }
  const timespec modified = modification_time(status);
  if (modified.tv_sec != _modified.tv_sec || modified.tv_nsec != _modified.tv_nsec) {
    throw RuntimeError(_path + ": changed while it was read: try again");
  }
}

}  // namespace tovana::files
