#include "tovana/engines/hub/cache_writer.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "tovana/base/text.h"
#include "tovana/engines/hub/blob_lock.h"
#include "tovana/engines/hub/cache_layout.h"
#include "tovana/engines/hub/durable_file.h"
#include "tovana/engines/hub/fetch_errors.h"
#include "tovana/engines/hub/leftover.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

namespace tovana::hub {
namespace {

namespace fs = std::filesystem;

/// Tells programs that make backups that the folder holds nothing that cannot be had again; see
/// https://bford.info/cachedir/.
constexpr std::string_view kCacheTag =
    "Signature: 8a477f597d28d172789f06886806bc55\n"
    "# This folder is a cache of models from a model hub: see https://bford.info/cachedir/\n";

bool is_link_to(const fs::path& link, const fs::path& target) {
  std::error_code error;
  return fs::read_symlink(link, error) == target && !error;
}

/// Throws when a folder to be written to is a link.
void refuse_links(const fs::path& folder) {
  std::error_code error;
  if (!fs::is_symlink(folder, error)) return;
  throw CacheNotWritableError(
      "the model cache is not written to: " + escape_control_characters(folder.string()) +
      " is a link to another folder; to keep a model elsewhere, move its whole folder there and "
      "put "
      "a link in its place");
}

/// Makes a link in place of whatever is there. Returns whether the file system has links.
bool make_link(const fs::path& target, const fs::path& link, const fs::path& spare) {
  for (;;) {
    if (::symlink(target.c_str(), link.c_str()) == 0) return true;
    if (errno == EPERM || errno == ENOSYS || errno == EOPNOTSUPP) return false;
    if (errno != EEXIST) throw_not_writable(link);
    if (is_link_to(link, target)) return true;
    // Replaced rather than removed: whoever reads meanwhile finds the one or the other.
    const NewFile reserved = make_incomplete_file(spare);
    std::error_code error;
    fs::remove(reserved.path, error);
    if (::symlink(target.c_str(), reserved.path.c_str()) != 0) throw_not_writable(reserved.path);
    try {
      rename_file(reserved.path, link);
    } catch (...) {
      fs::remove(reserved.path, error);
      throw;
    }
    return true;
  }
}

}  // namespace

CacheWriter::CacheWriter(const CacheSettings& settings, const std::string& repo_id)
    : _root(settings.root),
      _folder(settings.root / repository_folder_name(repo_id)),
      _has_links(settings.has_links) {}

fs::path CacheWriter::lock_file(const std::string& id) const {
  return _root / ".locks" / _folder.filename() / (id + ".lock");
}

void CacheWriter::prepare(const std::string& commit) const {
  for (const char* const name : {"blobs", "refs", "snapshots", ".no_exist"}) {
    refuse_links(_folder / name);
  }
  for (const fs::path& top : {snapshot(commit), _folder / ".no_exist" / commit, _folder / "refs"}) {
    refuse_links(top);
    std::error_code error;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top, error)) {
      if (entry.is_directory(error)) refuse_links(entry.path());
    }
  }
  make_folders(_folder / "blobs");
  const fs::path tag = _root / "CACHEDIR.TAG";
  const Descriptor file(::open(tag.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (file.is_open()) write_all(file.get(), kCacheTag, tag);
}

void CacheWriter::check_room(std::uint64_t bytes) const {
  std::error_code error;
  const fs::space_info space = fs::space(_folder, error);
  if (error || space.available >= bytes) return;
  const auto shown = [](std::uint64_t size) {
    constexpr std::uint64_t kMegabyte = 1'000'000;
    return size < 10 * kMegabyte ? std::to_string(size) + " bytes"
                                 : std::to_string(size / kMegabyte) + " MB";
  };
  throw CacheNotWritableError("the model cache " + _root.string() + " has " +
                              shown(space.available) + " of room, and the model needs " +
                              shown(bytes) +
                              " more; make room, or set HF_HUB_CACHE to a folder elsewhere");
}

void CacheWriter::sync_blobs() const { sync_folder(_folder / "blobs"); }

void CacheWriter::place(const std::string& commit, const std::string& name, const std::string& id,
                        bool is_wanted_again) const {
  const fs::path path = snapshot(commit) / name;
  make_folders(path.parent_path());
  if (_has_links &&
      make_link(blob(id).lexically_relative(path.parent_path()), path, blob("link"))) {
    return;
  }
  if (!is_wanted_again) {
    std::error_code error;
    if (!fs::exists(blob(id), error) && fs::is_regular_file(path, error)) return;  // by another
    return rename_file(blob(id), path);
  }
  const NewFile copy = make_incomplete_file(blob("copy"));
  std::error_code error;
  if (!fs::copy_file(blob(id), copy.path, fs::copy_options::overwrite_existing, error)) {
    errno = error.value();
    throw_not_writable(copy.path);
  }
  sync_file(copy.descriptor.get(), copy.path);
  rename_file(copy.path, path);
}

void CacheWriter::mark_absent(const std::string& commit, const std::string& name) const {
  const fs::path mark = _folder / ".no_exist" / commit / name;
  make_folders(mark.parent_path());
  const Descriptor file(::open(mark.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
  if (!file.is_open()) throw_not_writable(mark);
}

void CacheWriter::sync(const std::string& commit) const {
  // The marks of absent files are left to the system: one that is lost costs a question.
  std::error_code error;
  sync_folder(snapshot(commit));
  for (const fs::directory_entry& entry :
       fs::recursive_directory_iterator(snapshot(commit), error)) {
    if (entry.is_directory(error) && !entry.is_symlink(error)) sync_folder(entry.path());
  }
  sync_folder(_folder / "snapshots");
  sync_folder(_folder);
}

void CacheWriter::set_reference(const std::string& revision, const std::string& commit) const {
  const fs::path path = _folder / "refs" / revision;
  try {
    if (files::ModelDirectory(_folder).read("refs/" + revision, kLargestReference) == commit)
      return;
  } catch (const Error&) {  // whatever is there is replaced
  }
  make_folders(path.parent_path());
  const NewFile file = make_incomplete_file(blob("reference"));
  write_all(file.descriptor.get(), commit, file.path);
  sync_file(file.descriptor.get(), file.path);
  rename_file(file.path, path);
  sync_folder(path.parent_path());
}

std::map<std::string, std::uint64_t> CacheWriter::remove_abandoned(
    const std::set<std::string>& wanted) const noexcept {
  std::map<std::string, std::uint64_t> kept;
  try {
    const fs::path blobs = _folder / "blobs";
    if (leftovers(blobs, "").empty()) return kept;
    const NewFile fresh = make_incomplete_file(blob("sweep"));
    std::error_code ignored;
    for (const Leftover& leftover : leftovers(blobs, "", fresh.descriptor.get())) {
      const std::string name = leftover.path.filename().string();
      const std::string id = name.substr(0, name.find('.'));
      if (!leftover.is_abandoned || is_locked(lock_file(id))) continue;
      if (wanted.contains(id) && kept.emplace(id, leftover.size).second) continue;
      fs::remove(leftover.path, ignored);
    }
    fs::remove(fresh.path, ignored);
  } catch (...) {  // they cost room, and nothing else
  }
  return kept;
}

}  // namespace tovana::hub
