#include "tovana/files/file_mapping.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

#include "tovana/base/platform.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::files {
namespace {

std::span<std::byte> map(const FileHandle& file) {
  if (file.size() == 0) return {};  // Nothing of length 0 can be mapped.
  void* const mapped = mmap(nullptr, file.size(), PROT_READ, MAP_PRIVATE, file.descriptor(), 0);
  if (mapped == MAP_FAILED) {
    throw RuntimeError(file.path() + ": cannot be mapped: " + std::strerror(errno));
  }
  // A look at one byte would bring in the 2 MB around it, also of what has been given back.
  advise_small_pages(mapped, file.size());
  return {static_cast<std::byte*>(mapped), file.size()};
}

}  // namespace

// The other constructor is done before the body begins, so the destructor unmaps what the body gives
// up on.
FileMapping::FileMapping(const FileHandle& file) : FileMapping(map(file)) {
  file.check_unchanged();
}

void FileMapping::discard(std::span<const std::byte> part) const noexcept {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  // Only whole pages: their neighbours are still wanted.
  const auto address = reinterpret_cast<std::uintptr_t>(part.data());
  const std::size_t ahead = (page - address % page) % page;
  if (part.size() < ahead + page) return;
  std::byte* const begin = _bytes.data() + (part.data() - _bytes.data()) + ahead;
  // A hint, and memory that is not given back is only memory.
  static_cast<void>(madvise(begin, (part.size() - ahead) / page * page, MADV_DONTNEED));
}

FileMapping& FileMapping::operator=(FileMapping&& other) noexcept {
  std::swap(_bytes, other._bytes);
  return *this;
}

FileMapping::~FileMapping() {
  if (!_bytes.empty()) munmap(_bytes.data(), _bytes.size());
}

}  // namespace tovana::files
