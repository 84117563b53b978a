#include "tovana/engines/hub/blob_lock.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>

#include "tovana/engines/http/failure.h"

namespace tovana::hub {
namespace {

constexpr double kPollS = 0.1;
constexpr double kLongestWaitS = 600;

Descriptor open_lock_file(const std::filesystem::path& path) {
  std::error_code ignored;
  std::filesystem::create_directories(path.parent_path(), ignored);
  return Descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0664));
}

}  // namespace

BlobLock::BlobLock(const std::filesystem::path& path) : _file(open_lock_file(path)) {
  _is_held = _try() == Attempt::taken;
}

BlobLock::BlobLock(const std::filesystem::path& path, const http::StopTest& should_stop,
                   Clock& clock)
    : _file(open_lock_file(path)) {
  const double end = clock.now() + kLongestWaitS;
  Attempt attempt = _try();
  while (attempt == Attempt::busy && clock.now() < end) {
    if (http::wait_unless_stopped(kPollS, should_stop, clock) == http::WaitEnding::stopped) {
      throw http::Stopped("stopped while another process fetches the same file");
    }
    attempt = _try();
  }
  _is_held = attempt == Attempt::taken;
}

BlobLock::Attempt BlobLock::_try() noexcept {
  if (!_file.is_open()) return Attempt::impossible;
  while (::flock(_file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    return errno == EWOULDBLOCK ? Attempt::busy : Attempt::impossible;
  }
  return Attempt::taken;
}

}  // namespace tovana::hub
