#include "input_file.h"

#include <cerrno>
#include <cstddef>
#include <utility>

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
                    "; give a file that can be read, or - for standard input");
}

/// Opened without waiting for a pipe's other end: `open` could not be interrupted, the wait for the
/// first byte can.
int open_input(const std::string& path) {
  if (path == kStandardStream) return STDIN_FILENO;
  if (path.empty()) throw_unreadable(path, "the path is empty");
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) throw_unreadable(path, system_reason(errno));
  return descriptor;
}

}  // namespace

std::string input_name(const std::string& path) {
  return path == kStandardStream ? "standard input" : path;
}

InputFile::InputFile(std::string path, const RunLimits& limits)
    : _path(std::move(path)), _limits(limits), _descriptor(open_input(_path)) {
  struct stat status {};
  const bool is_known = fstat(_descriptor, &status) == 0;
  if (is_known && S_ISREG(status.st_mode)) _start = lseek(_descriptor, 0, SEEK_CUR);
  if (isatty(_descriptor) != 0) {
    report("reading from the terminal, one line a text; end with Ctrl-D");
  }
}

InputFile::~InputFile() {
  if (_path != kStandardStream) ::close(_descriptor);
}

bool InputFile::read(std::string& content) {
  const std::size_t before = content.size();
  content.resize(before + kChunk);
  for (;;) {
    _limits.wait_for(_descriptor, POLLIN);
    const ssize_t size = ::read(_descriptor, content.data() + before, kChunk);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (size < 0) throw_unreadable(_path, system_reason(errno));
    content.resize(before + static_cast<std::size_t>(size));
    return size > 0;
  }
}

bool InputFile::rewind() { return _start >= 0 && lseek(_descriptor, _start, SEEK_SET) == _start; }

}  // namespace tovana::tool
