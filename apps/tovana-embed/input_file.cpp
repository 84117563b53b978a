#include "input_file.h"

#include <cerrno>
#include <cstddef>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failure.h"

namespace tovana::tool {
namespace {

constexpr std::size_t kChunk = std::size_t{256} * 1024;

[[noreturn]] void throw_unreadable(const std::string& path, const std::string& reason) {
  throw Failure(ExitStatus::no_input,
                "cannot read " + input_name(path) + ": " + reason +
                    "; give --input a file that can be read, or - for standard input");
}

/// A descriptor to read from; standard input is borrowed, a file is closed at the end.
class InputDescriptor {
 public:
  /// The path is opened without waiting for a pipe's other end: `open` could not be interrupted,
  /// the wait for its first byte can.
  explicit InputDescriptor(const std::string& path)
      : _owned(path != kStandardStream),
        _descriptor(_owned ? ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)
                           : STDIN_FILENO) {
    if (_descriptor < 0) throw_unreadable(path, system_reason(errno));
  }
  ~InputDescriptor() {
    if (_owned) ::close(_descriptor);
  }
  InputDescriptor(const InputDescriptor&) = delete;
  InputDescriptor& operator=(const InputDescriptor&) = delete;

  int get() const noexcept { return _descriptor; }

 private:
  bool _owned;
  int _descriptor;
};

}  // namespace

std::string input_name(const std::string& path) {
  return path == kStandardStream ? "standard input" : path;
}

std::string read_input(const std::string& path, const RunLimits& limits) {
  if (path.empty()) throw_unreadable(path, "the path is empty");
  const InputDescriptor input(path);
  struct stat status {};
  if (fstat(input.get(), &status) == 0 && S_ISDIR(status.st_mode)) {
    throw_unreadable(path, "it is a directory");
  }
  if (isatty(input.get()) != 0) {
    report("reading from the terminal, one line a text; end with Ctrl-D");
  }
  std::string content;
  std::vector<char> chunk(kChunk);
  for (;;) {
    limits.wait_for(input.get(), POLLIN);
    const ssize_t size = ::read(input.get(), chunk.data(), chunk.size());
    if (size == 0) return content;
    if (size > 0) {
      content.append(chunk.data(), static_cast<std::size_t>(size));
    } else if (errno != EINTR && errno != EAGAIN) {
      throw_unreadable(path, system_reason(errno));
    }
  }
}

}  // namespace tovana::tool
