#include "output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failure.h"
#include "input_file.h"
#include "tovana/base/mutex.h"
#include "tovana/base/platform.h"

namespace tovana::tool {
namespace {

constexpr std::size_t kBufferSize = std::size_t{1} << 20;
constexpr double kReaderPollS = 0.02;
constexpr mode_t kNewFileMode = 0666;  // less what the umask takes away

/// The file to remove when the process ends early. Shared with the signal thread; never destroyed.
struct UnfinishedFile {
  Mutex mutex;
  std::string path TOVANA_GUARDED_BY(mutex);
  bool discarded TOVANA_GUARDED_BY(mutex) = false;
};

UnfinishedFile& unfinished_file() {
  static auto* const file = new UnfinishedFile;
  return *file;
}

/// Removes the file, unless it has its final name by now or was removed before.
void remove_unfinished(bool for_good) {
  UnfinishedFile& unfinished = unfinished_file();
  const LockGuard lock(unfinished.mutex);
  if (!unfinished.path.empty()) ::unlink(unfinished.path.c_str());
  unfinished.path.clear();
  unfinished.discarded = unfinished.discarded || for_good;
}

std::filesystem::path directory_of(const std::string& file) {
  const std::filesystem::path directory = std::filesystem::path(file).parent_path();
  return directory.empty() ? "." : directory;
}

/// The file itself, where the path is a symbolic link to one.
std::string without_links(const std::string& path) {
  std::error_code error;
  const std::filesystem::path resolved = std::filesystem::weakly_canonical(path, error);
  return error ? path : resolved.string();
}

}  // namespace

void discard_unfinished_output() noexcept { remove_unfinished(true); }

Output::Output(std::string path, const RunLimits& limits)
    : _path(std::move(path)),
      _limits(limits),
      _buffer(std::make_unique<char[]>(kBufferSize)),
      _capacity(kBufferSize) {
  if (_path != kStandardStream) {
    _open_file();
    return;
  }
  const int flags = fcntl(STDOUT_FILENO, F_GETFL);
  if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY) throw_unwritable("it is closed");
  _descriptor = STDOUT_FILENO;
}

Output::~Output() {
  if (_descriptor == STDOUT_FILENO && _line_end > 0 && !_limits.should_stop()) {
    try {
      _flush(_line_end);
    } catch (const std::exception&) {  // the command fails already
    }
  }
  if (_descriptor > STDERR_FILENO) ::close(_descriptor);
  if (!_target.empty()) remove_unfinished(false);
}

void Output::_open_file() {
  if (_path.empty()) throw_unwritable("the path is empty");
  struct stat status {};
  const bool exists = ::stat(_path.c_str(), &status) == 0;
  if (!exists && errno != ENOENT) throw_unwritable(errno);
  if (exists && S_ISDIR(status.st_mode)) throw_unwritable("it is a directory");
  // Renaming needs no permission to write the file that it replaces; a user expects that it does.
  if (exists && ::access(_path.c_str(), W_OK) != 0) throw_unwritable(errno);
  if (!exists || S_ISREG(status.st_mode)) {
    _target = without_links(_path);
    return _open_unfinished();
  }
  // `open` would wait for a pipe's reader past every limit.
  const int waiting = S_ISFIFO(status.st_mode) ? O_NONBLOCK : 0;
  while ((_descriptor = ::open(_path.c_str(), O_WRONLY | O_CLOEXEC | waiting)) < 0) {
    if (waiting == 0 || errno != ENXIO) throw_unwritable(errno);
    _limits.pause(kReaderPollS);
  }
}

void Output::_open_unfinished() {
  UnfinishedFile& unfinished = unfinished_file();
  const LockGuard lock(unfinished.mutex);
  if (unfinished.discarded) throw Interrupted();
  _descriptor = open_nameless_file(directory_of(_target).c_str(), kNewFileMode);
  if (_descriptor >= 0) return;
  unfinished.path = _make_unfinished([this](const char* path) {
    _descriptor = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
    return _descriptor >= 0;
  });
}

std::string Output::_make_unfinished(const std::function<bool(const char* path)>& make) const {
  const std::string stem =
      (directory_of(_target) / ".tovana-embed-").string() + std::to_string(::getpid()) + "-";
  for (int attempt = 0;; ++attempt) {
    std::string path = stem + std::to_string(attempt) + ".tmp";
    if (make(path.c_str())) return path;
    // That name may be left from a process that was killed long ago.
    if (errno != EEXIST) throw_unwritable(errno);
  }
}

void Output::write(std::string_view bytes) {
  char* const place = room(bytes.size());
  std::memcpy(place, bytes.data(), bytes.size());
  advance(place + bytes.size());
}

char* Output::room(std::size_t size) {
  if (_capacity - _used < size) {
    _flush(_line_end > 0 ? _line_end : _used);
    if (_capacity - _used < size) {
      auto larger = std::make_unique<char[]>(_used + size);
      std::memcpy(larger.get(), _buffer.get(), _used);
      _buffer = std::move(larger);
      _capacity = _used + size;
    }
  }
  return _buffer.get() + _used;
}

void Output::_flush(std::size_t size) {
  std::string_view left(_buffer.get(), size);
  while (!left.empty()) {
    _limits.check_interrupted();
    const ssize_t written = ::write(_descriptor, left.data(), left.size());
    if (written >= 0) {
      left.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      throw ClosedPipe();
    } else if (errno == EAGAIN) {  // somebody else made the pipe non-blocking
      _limits.wait_for(_descriptor, POLLOUT);
    } else if (errno != EINTR) {
      throw_unwritable(errno);
    }
  }
  std::memmove(_buffer.get(), _buffer.get() + size, _used - size);
  _used -= size;
  _line_end = 0;
}

void Output::finish() {
  _flush(_used);
  if (!_target.empty()) return _finish_file();
  // Some file systems report only now that there was no space.
  if (::close(std::exchange(_descriptor, -1)) != 0) throw_unwritable(errno);
}

void Output::_finish_file() {
  if (::fsync(_descriptor) != 0) throw_unwritable(errno);
  UnfinishedFile& unfinished = unfinished_file();
  const LockGuard lock(unfinished.mutex);
  if (unfinished.discarded) throw Interrupted();
  // A file that is to take another one's place needs a name first.
  if (unfinished.path.empty()) {
    unfinished.path =
        _make_unfinished([this](const char* path) { return name_file(_descriptor, path) == 0; });
  }
  // Some file systems report only now that there was no space.
  if (::close(std::exchange(_descriptor, -1)) != 0) throw_unwritable(errno);
  if (std::rename(unfinished.path.c_str(), _target.c_str()) != 0) {
    throw_unwritable(errno);
  }
  unfinished.path.clear();
}

void Output::throw_unwritable(int error_number) const {
  throw_unwritable(system_reason(error_number), error_number == ENOSPC || error_number == EDQUOT);
}

void Output::throw_unwritable(const std::string& reason, bool is_full) const {
  const bool is_file = _path != kStandardStream;
  throw Failure(ExitStatus::cannot_write,
                "cannot write " + (is_file ? _path : std::string("standard output")) + ": " +
                    reason + (is_full ? "; make room there or " : "; ") +
                    (is_file ? "give --output another path" : "redirect it elsewhere"));
}

}  // namespace tovana::tool
