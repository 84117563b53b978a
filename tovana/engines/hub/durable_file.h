#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

/// Files that a power cut, a full disk or another process in the same folder must not make a mess
/// of. Operations block on the disk and throw CacheNotWritableError with the path and the system's
/// reason.
namespace tovana::hub {

/// An open file's descriptor, closed in the end. Move only.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) noexcept : _number(number) {}
  Descriptor(Descriptor&& other) noexcept : _number(std::exchange(other._number, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(_number, other._number);
    return *this;
  }
  ~Descriptor();

  int get() const noexcept { return _number; }
  bool is_open() const noexcept { return _number >= 0; }

 private:
  int _number;
};

/// Throws CacheNotWritableError for what the system call that just failed left in errno.
[[noreturn]] void throw_not_writable(const std::filesystem::path& path);

/// A new file PREFIX.XXXXXXXX.incomplete for reading and writing, of a name that nothing has; the
/// digits are random.
struct NewFile {
  std::filesystem::path path;
  Descriptor descriptor;
};
NewFile make_incomplete_file(const std::filesystem::path& prefix);

inline constexpr std::string_view kIncompleteSuffix = ".incomplete";

void make_folders(const std::filesystem::path& folder);

void write_all(int descriptor, std::string_view bytes, const std::filesystem::path& path);

/// Waits until the content of a file, or the names in a folder, are on the disk. File systems that
/// cannot say so are taken at their word.
void sync_file(int descriptor, const std::filesystem::path& path);
void sync_folder(const std::filesystem::path& folder);

/// Gives a file its final name, in place of whatever has it.
void rename_file(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace tovana::hub
