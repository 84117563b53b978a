#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <vector>

struct stat;

/// What the systems do each in its own way. Everything else asks for POSIX, `madvise` and standard
/// C++. It is written for Linux with glibc; what stands in for it elsewhere says how it differs.
namespace tovana {

/// The absolute path of the shared object or the executable that this code is part of. Empty when
/// that is not known: an object that was loaded by a relative name may have been of another working
/// directory.
std::filesystem::path file_of_this_component();

/// The absolute path of the process's executable; empty when the system does not tell.
std::filesystem::path executable_file();

/// The directories of the RUNPATH, or else RPATH, of `file_of_this_component()`, in their order and
/// with $ORIGIN replaced; those that name other variables are left out. LD_LIBRARY_PATH has no part
/// in it. With another C library than glibc: none.
std::vector<std::filesystem::path> runpath_of_this_component();

/// The processors that the calling thread may run on, at least 1; where only Linux's affinity tells
/// the two apart, those that are online.
std::size_t usable_processors() noexcept;

/// Gives the calling thread a name for debuggers and `ps`, of which Linux shows 15 bytes. Does
/// nothing where a thread cannot be named.
void name_this_thread(const char* name) noexcept;

/// Ask for memory in huge pages, and in no huge pages. `begin` is the begin of a page. Hints, and
/// nothing where the system has no such pages to choose.
void advise_huge_pages(void* begin, std::size_t size) noexcept;
void advise_small_pages(void* begin, std::size_t size) noexcept;

/// Opens a new file to write in a directory that has no name, and goes with its last descriptor
/// unless `name_file` has named it. -1 where the file system or the system has no such files, or
/// they could not be named.
int open_nameless_file(const char* directory, unsigned mode);
/// 0, or -1 and `errno`; EEXIST where something has that name.
int name_file(int descriptor, const char* path);

/// Has the system begin to write a part of a file to the disk, without waiting for it. A hint, and
/// nothing where the system has no such call.
void start_writing_back(int descriptor, std::uint64_t begin, std::uint64_t size) noexcept;

/// Waits for one of `signals`, which are blocked, to be pending, and takes it; false when none came
/// for `timeout_s` seconds.
bool take_signal(const sigset_t& signals, double timeout_s) noexcept;

/// `socket(2)`, closed by exec; not where two calls make it so and another thread forks in between.
int open_private_socket(int family, int type, int protocol) noexcept;

/// What `poll` has to be asked for to tell that the peer has closed a socket, whether or not bytes
/// are there to be read; its answer is not 0 then. Off Linux some systems tell it only when both
/// directions are closed.
short peer_closed_event() noexcept;

/// When a file was modified, to the system's own precision.
std::timespec modification_time(const struct stat& status) noexcept;

}  // namespace tovana
