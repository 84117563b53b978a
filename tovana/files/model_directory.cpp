#include "tovana/files/model_directory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <nlohmann/json.hpp>

#include "tovana/base/utf8.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/json_numbers.h"

namespace tovana::files {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kDeepestNesting = 64;
constexpr std::size_t kLongestName = 1024;
constexpr std::size_t kLongestQuote = 120;

/// How deep the values of a JSON text are nested. Exact up to the first place where the text is not
/// JSON, and no parser gets beyond that.
std::size_t nesting(std::string_view text) noexcept {
  std::size_t depth = 0;
  std::size_t deepest = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') ++i;
      if (c == '"') in_string = false;
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return deepest;
}

bool is_below(const fs::path& path, const fs::path& root) {
  return std::mismatch(root.begin(), root.end(), path.begin(), path.end()).first == root.end();
}

fs::path existing_folder(const fs::path& path) {
  std::error_code error;
  fs::path canonical = fs::canonical(path, error);
  if (error) throw ModelFilesError(path.string() + ": no such model folder: " + error.message());
  if (!fs::is_directory(canonical, error)) {
    throw ModelFilesError(path.string() + ": not a folder: give the folder that holds the model");
  }
  return canonical;
}

bool means_absent(const std::error_code& error) {
  return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

}  // namespace

bool is_contained_name(std::string_view name) noexcept {
  if (name.empty() || name.size() > kLongestName || name.front() == '/') return false;
  if (name.find('\0') != std::string_view::npos) return false;
  if (name.find('\\') != std::string_view::npos) return false;
  if (name.size() > 1 && name[1] == ':') return false;
  for (std::size_t start = 0; start <= name.size();) {
    const std::size_t end = std::min(name.find('/', start), name.size());
    if (name.substr(start, end - start) == "..") return false;
    start = end + 1;
  }
  return true;
}

std::string in_quotes(std::string_view text) {
  const bool is_cut = text.size() > kLongestQuote;
  const std::string shown = nlohmann::json(text.substr(0, kLongestQuote))
                                .dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
  return is_cut ? shown + "..." : shown;
}

std::string shown_json(std::string_view json) {
  const std::string text =
      parse_json(json).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
  return text.size() > kLongestQuote ? text.substr(0, kLongestQuote) + "..." : text;
}

nlohmann::json parse_json(std::string_view text) {
  // The parser would skip a byte-order mark and take a NUL for the end of the text.
  if (text.starts_with(utf8::kByteOrderMark)) throw ValueError("begins with a byte-order mark");
  if (const std::size_t nul = text.find('\0'); nul != std::string_view::npos) {
    throw ValueError("no valid JSON: a NUL at byte " + std::to_string(nul));
  }
  if (nesting(text) > kDeepestNesting) {
    throw ValueError("JSON nested more than " + std::to_string(kDeepestNesting) + " deep");
  }
  try {
    return nlohmann::json::parse(text);
  } catch (const nlohmann::json::parse_error& error) {
    throw ValueError("no valid JSON at byte " + std::to_string(error.byte));
  } catch (const nlohmann::json::out_of_range&) {
    return nlohmann::json::parse(with_numbers_in_range(text));
  }
}

ModelDirectory::ModelDirectory(const fs::path& root)
    : _path(existing_folder(root)), _allowed_root(_path), _is_snapshot(false) {}

ModelDirectory::ModelDirectory(const fs::path& root, const fs::path& cache_root)
    : _path(existing_folder(root)),
      _allowed_root(existing_folder(cache_root)),
      _is_snapshot(_path != _allowed_root) {
  if (!is_below(_path, _allowed_root)) {
    throw ModelFilesError(_path.string() + ": leads out of the cache " + _allowed_root.string());
  }
}

ModelDirectory::ModelDirectory(fs::path path, fs::path allowed_root, bool is_snapshot)
    : _path(std::move(path)), _allowed_root(std::move(allowed_root)), _is_snapshot(is_snapshot) {}

ModelDirectory ModelDirectory::subdirectory(std::string_view name) const {
  if (name.empty()) return *this;
  if (!is_contained_name(name)) {
    throw ModelFilesError(_path.string() + ": " + in_quotes(name) +
                          " is no folder inside the model");
  }
  return ModelDirectory(_path / name, _allowed_root, _is_snapshot);
}

std::string ModelDirectory::path_of(std::string_view name) const {
  const std::string escaped = in_quotes(name);
  return _path.string() + "/" + escaped.substr(1, escaped.rfind('"') - 1);
}

std::optional<FileHandle> ModelDirectory::open(std::string_view name, std::uint64_t largest) const {
  if (!is_contained_name(name)) {
    throw ModelFilesError(_path.string() + ": " + in_quotes(name) + " is no file inside the model");
  }
  const std::string shown = path_of(name);
  const fs::path path = _path / name;
  std::error_code error;
  const fs::path target = fs::canonical(path, error);
  if (means_absent(error)) {
    std::error_code ignored;
    if (!fs::is_symlink(fs::symlink_status(path, ignored))) return std::nullopt;
    throw ModelFilesError(shown + ": a link to a file that is not there");
  }
  if (error == std::errc::too_many_symbolic_link_levels) {
    throw ModelFilesError(shown + ": a link that leads in circles");
  }
  if (error) throw RuntimeError(shown + ": cannot be reached: " + error.message());
  if (!is_below(target, _allowed_root)) {
    throw ModelFilesError(shown + ": leads to " + target.string() + ", outside of " +
                          _allowed_root.string());
  }

  // Not blocking: the open of a named pipe would wait for a writer.
  const int descriptor =
      ::open(target.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (descriptor < 0) throw RuntimeError(shown + ": cannot be opened: " + std::strerror(errno));
  FileHandle file(descriptor, shown);
  if (file.size() > largest) {
    throw ModelFilesError(shown + ": " + std::to_string(file.size()) + " bytes, more than the " +
                          std::to_string(largest) + " that are allowed");
  }
  return file;
}

std::optional<std::string> ModelDirectory::read(std::string_view name, std::size_t largest) const {
  const std::optional<FileHandle> file = open(name, largest);
  if (!file) return std::nullopt;
  std::string content(file->size(), '\0');
  file->read_all(std::as_writable_bytes(std::span(content)));
  return content;
}

std::optional<nlohmann::json> ModelDirectory::read_json(std::string_view name,
                                                        std::size_t largest) const {
  const std::optional<std::string> text = read(name, largest);
  if (!text) return std::nullopt;
  try {
    return parse_json(*text);
  } catch (const ValueError& error) {
    throw ModelFilesError(path_of(name) + ": " + error.what());
  }
}

}  // namespace tovana::files
