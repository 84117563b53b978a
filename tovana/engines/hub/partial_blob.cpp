#include "tovana/engines/hub/partial_blob.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tovana/base/libcrypto.h"
#include "tovana/base/platform.h"
#include "tovana/base/text.h"
#include "tovana/engines/hub/leftover.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::hub {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kGitIdDigits = 40;

void check_libcrypto(int result) {
  if (result == 1) return;
  throw RuntimeError("libcrypto cannot compute the hash that files are checked by");
}

constexpr std::size_t kReadBytes = std::size_t{64} << 10U;

/// What was written is hashed in steps that the processor's cache still holds.
constexpr std::uint64_t kHashBytes = std::uint64_t{256} << 10U;

/// The disk begins to write in steps of this size, so that waiting for it in the end is short.
constexpr std::uint64_t kFlushBytes = std::uint64_t{8} << 20U;

/// Hands on a file's bytes from `from` to `to`, or to its end, in pieces; returns where that was.
template <class Take>
std::uint64_t read_file(int descriptor, std::uint64_t from, std::uint64_t to, Take take) {
  const auto buffer = std::make_unique_for_overwrite<char[]>(kReadBytes);
  while (from < to) {
    const auto wanted = std::min<std::uint64_t>(kReadBytes, to - from);
    const ssize_t got = ::pread(descriptor, buffer.get(), wanted, static_cast<off_t>(from));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    take(std::string_view(buffer.get(), static_cast<std::size_t>(got)));
    from += static_cast<std::uint64_t>(got);
  }
  return from;
}

std::vector<Leftover> leftovers_of(const fs::path& blob, int fresh = -1) {
  return leftovers(blob.parent_path(), blob.filename().string() + ".", fresh);
}

/// Whether the file still has the name that it was made with.
bool is_named(const NewFile& file) {
  struct stat named = {};
  struct stat opened = {};
  return ::lstat(file.path.c_str(), &named) == 0 && ::fstat(file.descriptor.get(), &opened) == 0 &&
         named.st_ino == opened.st_ino;
}

Descriptor open_existing(const fs::path& path, int access) {
  return Descriptor(::open(path.c_str(), access | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

}  // namespace

void ContentHash::Free::operator()(evp_md_ctx_st* context) const noexcept {
  EVP_MD_CTX_free(context);
}

ContentHash::ContentHash(std::string_view id, std::uint64_t size) {
  initialize_libcrypto();
  _context.reset(EVP_MD_CTX_new());
  if (_context == nullptr) throw std::bad_alloc();
  const bool is_git = id.size() == kGitIdDigits;
  check_libcrypto(EVP_DigestInit_ex2(_context.get(), is_git ? EVP_sha1() : EVP_sha256(), nullptr));
  if (is_git) {
    const std::string header = "blob " + std::to_string(size);
    update({header.c_str(), header.size() + 1});  // its NUL belongs to it
  }
}

void ContentHash::update(std::string_view bytes) {
  check_libcrypto(EVP_DigestUpdate(_context.get(), bytes.data(), bytes.size()));
}

std::string ContentHash::finish() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  check_libcrypto(EVP_DigestFinal_ex(_context.get(), digest.data(), &size));
  std::string hex;
  for (unsigned i = 0; i < size; ++i) {
    hex += kHexDigits[digest[i] >> 4U];
    hex += kHexDigits[digest[i] & 15U];
  }
  return hex;
}

PartialBlob::PartialBlob(fs::path blob, const ListedFile& file)
    : _blob(std::move(blob)),
      _file(file),
      _partial(make_incomplete_file(_blob)),
      _hash(_file.id, _file.size) {
  _adopt_leftover();
  _hash_written();
  _cut_to(_hashed);
}

PartialBlob::~PartialBlob() {
  if (_is_finished) return;
  std::error_code ignored;
  if (_size > 0) {
    release(_partial.descriptor.get());
  } else {
    fs::remove(_partial.path, ignored);
  }
}

void PartialBlob::append(std::string_view bytes) {
  _leave_if_taken_over();
  write_all(_partial.descriptor.get(), bytes, _partial.path);
  _size += bytes.size();
  if (_size - _hashed >= kHashBytes) _hash_written();
  if (_size - _flushed < kFlushBytes) return;
  // What this says of failures is said again by the sync in the end.
  start_writing_back(_partial.descriptor.get(), _flushed, _size - _flushed);
  _flushed = _size;
}

void PartialBlob::restart() {
  _leave_if_taken_over();
  _cut_to(0);
  _hash = ContentHash(_file.id, _file.size);
  _hashed = 0;
  _flushed = 0;
}

bool PartialBlob::finish() {
  _hash_written();
  if (_hashed != _file.size || _hash.finish() != _file.id) {
    restart();
    return false;
  }
  sync_file(_partial.descriptor.get(), _partial.path);
  while (!_take_name()) _move_to_new_file();
  std::error_code ignored;
  _is_finished = true;
  for (const Leftover& leftover : leftovers_of(_blob)) fs::remove(leftover.path, ignored);
  return true;
}

/// False when somebody has removed the file as a leftover, and nobody has stored the blob.
bool PartialBlob::_take_name() {
  std::error_code error;
  fs::rename(_partial.path, _blob, error);
  if (!error) return true;
  if (error == std::errc::no_such_file_or_directory) return holds_content(_blob, _file);
  errno = error.value();
  throw_not_writable(_blob);
}

/// Somebody may have held the file for abandoned while this process was stopped, and be writing to
/// it, or have made it the blob.
void PartialBlob::_leave_if_taken_over() {
  if (!is_named(_partial)) _move_to_new_file();
}

/// What was removed or renamed is still there to be read, as long as it is open.
void PartialBlob::_move_to_new_file() {
  NewFile again = make_incomplete_file(_blob);
  read_file(_partial.descriptor.get(), 0, _size, [&again](std::string_view bytes) {
    write_all(again.descriptor.get(), bytes, again.path);
  });
  sync_file(again.descriptor.get(), again.path);
  _partial = std::move(again);
}

void PartialBlob::_adopt_leftover() {
  for (const Leftover& leftover : leftovers_of(_blob, _partial.descriptor.get())) {
    if (_size == 0 && leftover.is_abandoned && _take_over(leftover.path)) continue;
    if (_size == 0 && !leftover.is_abandoned) _copy(leftover.path);
    std::error_code ignored;
    if (leftover.is_abandoned) fs::remove(leftover.path, ignored);
  }
}

/// Made new before it is renamed: whoever looks for leftovers from then on passes it over, and of
/// those who have looked already one finds it under its name.
bool PartialBlob::_take_over(const fs::path& leftover) {
  Descriptor opened = open_existing(leftover, O_RDWR);
  if (!opened.is_open()) return false;
  renew(opened.get());
  std::error_code error;
  fs::rename(leftover, _partial.path, error);
  if (error) return false;
  _partial.descriptor = std::move(opened);
  _size = std::min<std::uint64_t>(_file.size, fs::file_size(_partial.path));
  return true;
}

void PartialBlob::_copy(const fs::path& leftover) {
  const Descriptor opened = open_existing(leftover, O_RDONLY);
  if (opened.is_open()) {
    read_file(opened.get(), 0, _file.size, [this](std::string_view bytes) { append(bytes); });
  }
}

void PartialBlob::_cut_to(std::uint64_t size) {
  const int descriptor = _partial.descriptor.get();
  const auto offset = static_cast<off_t>(size);
  if (::ftruncate(descriptor, offset) != 0 || ::lseek(descriptor, offset, SEEK_SET) < 0) {
    throw_not_writable(_partial.path);
  }
  _size = size;
}

void PartialBlob::_hash_written() {
  _hashed = read_file(_partial.descriptor.get(), _hashed, _size,
                      [this](std::string_view bytes) { _hash.update(bytes); });
}

bool holds_content(const fs::path& path, const ListedFile& file) {
  const Descriptor opened(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  if (!opened.is_open() || ::fstat(opened.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      static_cast<std::uint64_t>(status.st_size) != file.size) {
    return false;
  }
  ContentHash hash(file.id, file.size);
  const auto take = [&hash](std::string_view bytes) { hash.update(bytes); };
  return read_file(opened.get(), 0, file.size, take) == file.size && hash.finish() == file.id;
}

}  // namespace tovana::hub
