#include "tovana/engines/hub/durable_file.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <random>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "tovana/base/text.h"
#include "tovana/engines/hub/fetch_errors.h"

namespace tovana::hub {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void throw_not_writable(const fs::path& path, std::error_code error) {
  const bool is_full = error == std::errc::no_space_on_device || error.value() == EDQUOT;
  throw CacheNotWritableError(
      "the model cache cannot be written to: " + escape_control_characters(path.string()) + ": " +
      error.message() + (is_full ? "; make room, or" : "; make it writable, or") +
      " set HF_HUB_CACHE to a folder elsewhere");
}

void sync(int descriptor, const fs::path& path) {
  while (::fsync(descriptor) != 0) {
    if (errno == EINTR) continue;
    if (errno == EINVAL || errno == ENOTSUP || errno == EROFS) return;
    hub::throw_not_writable(path);
  }
}

}  // namespace

Descriptor::~Descriptor() {
  if (_number >= 0) ::close(_number);
}

void throw_not_writable(const fs::path& path) {
  throw_not_writable(path, std::error_code(errno, std::generic_category()));
}

NewFile make_incomplete_file(const fs::path& prefix) {
  std::random_device random;
  for (;;) {
    std::array<char, 16> digits{};
    static_cast<void>(std::snprintf(digits.data(), digits.size(), ".%08x", random()));
    fs::path path = prefix;
    path += digits.data();
    path += kIncompleteSuffix;
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor >= 0) return {std::move(path), Descriptor(descriptor)};
    if (errno != EEXIST) throw_not_writable(path);
  }
}

void make_folders(const fs::path& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (!error && !fs::is_directory(folder, error)) {
    error = std::make_error_code(std::errc::not_a_directory);
  }
  if (error) throw_not_writable(folder, error);
}

void write_all(int descriptor, std::string_view bytes, const fs::path& path) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw_not_writable(path);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

void sync_file(int descriptor, const fs::path& path) { sync(descriptor, path); }

void sync_folder(const fs::path& folder) {
  const Descriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened.is_open()) throw_not_writable(folder);
  sync(opened.get(), folder);
}

void rename_file(const fs::path& from, const fs::path& to) {
  std::error_code error;
  fs::rename(from, to, error);
  if (error) throw_not_writable(to, error);
}

}  // namespace tovana::hub
