#include "tovana/base/platform.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__linux__)
#include <sched.h>
#include <sys/prctl.h>
#elif defined(__APPLE__)
#include <mach-o/dyld.h>
#endif

#if defined(__GLIBC__)
#include <link.h>
#endif

#include "tovana/base/clock.h"

namespace tovana {
namespace {

namespace fs = std::filesystem;

/// Something of this component whose address no other object can take the place of.
constexpr char kWithin = 0;

#if defined(__GLIBC__)

const link_map* this_object() noexcept {
  Dl_info symbol;
  void* object = nullptr;
  return dladdr1(&kWithin, &symbol, &object, RTLD_DL_LINKMAP) == 0
             ? nullptr
             : static_cast<const link_map*>(object);
}

/// The text of the first of the dynamic section's entries of one of two kinds; "" when there is
/// none. dlinfo's RTLD_DI_SERINFO would also know the directories, but not where each comes from:
/// glibc sets none of the flags that are to tell.
std::string_view dynamic_text(const link_map& object, ElfW(Sxword) kind, ElfW(Sxword) otherwise) {
  const char* texts = nullptr;
  const ElfW(Dyn)* wanted = nullptr;
  for (const ElfW(Dyn)* entry = object.l_ld; entry->d_tag != DT_NULL; ++entry) {
    if (entry->d_tag == DT_STRTAB) {
      // The loader has made an address of it, but on processors whose section is read-only.
      const ElfW(Addr) at = entry->d_un.d_ptr;
      const ElfW(Addr) address = at < object.l_addr ? object.l_addr + at : at;
      texts = reinterpret_cast<const char*>(address);  // NOLINT(performance-no-int-to-ptr)
    }
    const bool is_wanted = entry->d_tag == kind || (entry->d_tag == otherwise && wanted == nullptr);
    if (is_wanted) wanted = entry;
  }
  return texts == nullptr || wanted == nullptr ? "" : texts + wanted->d_un.d_val;
}

#endif

std::string path_of_descriptor(int descriptor) {
  return "/proc/self/fd/" + std::to_string(descriptor);
}

#if !defined(__linux__)

bool any_pending(const sigset_t& signals) noexcept {
  sigset_t pending;
  sigpending(&pending);
  for (int signal_number = 1; signal_number < NSIG; ++signal_number) {
    if (sigismember(&signals, signal_number) == 1 && sigismember(&pending, signal_number) == 1) {
      return true;
    }
  }
  return false;
}

#endif

}  // namespace

fs::path executable_file() {
#if defined(__APPLE__)
  std::uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::string path(size, '\0');
  if (_NSGetExecutablePath(path.data(), &size) != 0) return {};
  std::error_code unknown;
  return fs::canonical(path.c_str(), unknown);
#else
  std::error_code unknown;
  return fs::read_symlink("/proc/self/exe", unknown);
#endif
}

fs::path file_of_this_component() {
#if defined(__GLIBC__)
  const link_map* const object = this_object();
  if (object == nullptr) return {};
  const fs::path name = object->l_name;
  if (name.empty()) return executable_file();
  return name.is_absolute() ? name : fs::path();
#else
  // Nothing says whether the object is the executable, whose name may be what it was called by.
  Dl_info symbol;
  if (dladdr(&kWithin, &symbol) == 0 || symbol.dli_fname == nullptr) return {};
  const fs::path name = symbol.dli_fname;
  if (name.is_absolute()) return name;
  fs::path executable = executable_file();
  return name.filename() == executable.filename() ? executable : fs::path();
#endif
}

std::vector<fs::path> runpath_of_this_component() {
  std::vector<fs::path> directories;
#if defined(__GLIBC__)
  const link_map* const object = this_object();
  if (object == nullptr) return directories;
  const std::string origin = file_of_this_component().parent_path().string();
  std::string_view left = dynamic_text(*object, DT_RUNPATH, DT_RPATH);
  while (!left.empty()) {
    const std::size_t length = std::min(left.find(':'), left.size());
    std::string directory(left.substr(0, length));
    left.remove_prefix(std::min(length + 1, left.size()));
    for (const std::string_view variable : {"$ORIGIN", "${ORIGIN}"}) {
      if (!origin.empty() && directory.starts_with(variable)) {
        directory.replace(0, variable.size(), origin);
      }
    }
    // An empty or a relative one would be the working directory's.
    if (directory.starts_with('/') && directory.find('$') == std::string::npos) {
      directories.emplace_back(std::move(directory));
    }
  }
#endif
  return directories;
}

std::size_t usable_processors() noexcept {
#if defined(__linux__)
  // As many as Linux can be built for; it refuses a set that is smaller than its own.
  cpu_set_t usable[8192 / CPU_SETSIZE] = {};
  if (sched_getaffinity(0, sizeof(usable), usable) != 0) return 1;
  return static_cast<std::size_t>(std::max(CPU_COUNT_S(sizeof(usable), usable), 1));
#else
  return static_cast<std::size_t>(std::max(sysconf(_SC_NPROCESSORS_ONLN), 1L));
#endif
}

void name_this_thread(const char* name) noexcept {
#if defined(__linux__)
  prctl(PR_SET_NAME, name);  // cuts a long name, where pthread_setname_np would set none
#elif defined(__APPLE__)
  pthread_setname_np(name);
#else
  static_cast<void>(name);
#endif
}

void advise_huge_pages(void* begin, std::size_t size) noexcept {
#if defined(MADV_HUGEPAGE)
  static_cast<void>(madvise(begin, size, MADV_HUGEPAGE));
#else
  static_cast<void>(begin);
  static_cast<void>(size);
#endif
}

void advise_small_pages(void* begin, std::size_t size) noexcept {
#if defined(MADV_NOHUGEPAGE)
  static_cast<void>(madvise(begin, size, MADV_NOHUGEPAGE));
#else
  static_cast<void>(begin);
  static_cast<void>(size);
#endif
}

int open_nameless_file(const char* directory, unsigned mode) {
#if defined(O_TMPFILE)
  const int opened = ::open(directory, O_WRONLY | O_TMPFILE | O_CLOEXEC, mode);
  // Where it would be named by, which nobody has to have mounted.
  if (opened >= 0 && ::access(path_of_descriptor(opened).c_str(), F_OK) == 0) return opened;
  if (opened >= 0) ::close(opened);
#else
  static_cast<void>(directory);
  static_cast<void>(mode);
#endif
  return -1;
}

int name_file(int descriptor, const char* path) {
  return ::linkat(AT_FDCWD, path_of_descriptor(descriptor).c_str(), AT_FDCWD, path,
                  AT_SYMLINK_FOLLOW);
}

void start_writing_back(int descriptor, std::uint64_t begin, std::uint64_t size) noexcept {
#if defined(__linux__)
  static_cast<void>(::sync_file_range(descriptor, static_cast<off_t>(begin),
                                      static_cast<off_t>(size), SYNC_FILE_RANGE_WRITE));
#else
  static_cast<void>(descriptor);
  static_cast<void>(begin);
  static_cast<void>(size);
#endif
}

bool take_signal(const sigset_t& signals, double timeout_s) noexcept {
  const double deadline = system_clock().now() + timeout_s;
  double left = timeout_s;
  for (;;) {
    const double wait_s = std::max(left, 0.0);
#if defined(__linux__)
    const auto seconds = static_cast<std::time_t>(wait_s);
    const timespec limit = {seconds,
                            static_cast<long>((wait_s - static_cast<double>(seconds)) * 1e9)};
    if (sigtimedwait(&signals, nullptr, &limit) >= 0) return true;
    if (errno != EINTR || left <= 0) return false;
#else
    // There is no wait with an end, so this looks a hundred times a second. A thread that takes the
    // same signal at the same moment makes it wait for the next one.
    int taken = 0;
    if (any_pending(signals)) return sigwait(&signals, &taken) == 0;
    if (left <= 0) return false;
    const timespec pause = {0, static_cast<long>(std::min(wait_s, 0.01) * 1e9)};
    nanosleep(&pause, nullptr);
#endif
    left = deadline - system_clock().now();
  }
}

int open_private_socket(int family, int type, int protocol) noexcept {
#if defined(SOCK_CLOEXEC)
  return ::socket(family, type | SOCK_CLOEXEC, protocol);
#else
  const int opened = ::socket(family, type, protocol);
  if (opened >= 0) fcntl(opened, F_SETFD, FD_CLOEXEC);
  return opened;
#endif
}

short peer_closed_event() noexcept {
#if defined(POLLRDHUP)
  return POLLRDHUP;
#else
  return POLLHUP;
#endif
}

std::timespec modification_time(const struct stat& status) noexcept {
#if defined(__APPLE__)
  return status.st_mtimespec;
#else
  return status.st_mtim;
#endif
}

}  // namespace tovana
