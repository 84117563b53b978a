#include "tovana/engines/hub/file_listing.h"

#include <nlohmann/json.hpp>

#include "tovana/engines/hub/cache_layout.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

namespace tovana::hub {
namespace {

using files::in_quotes;
using nlohmann::json;

/// More files than any model has, and few enough to be kept in memory.
constexpr std::size_t kMostListedFiles = 100'000;

/// The size and hash that `entry` states: of the file itself, or of its "lfs" part, where the
/// file's own are those of a pointer to the content.
ListedFile listed_file(const json& entry) {
  const auto size = entry.find("size");
  const auto id = entry.find("oid");
  if (size == entry.end() || !size->is_number_unsigned()) throw ValueError("has no size");
  if (id == entry.end() || !id->is_string() || !is_content_id(id->get_ref<const std::string&>())) {
    throw ValueError("has no hash");
  }
  return {.size = size->get<std::uint64_t>(), .id = id->get<std::string>()};
}

}  // namespace

void add_listing_page(std::string_view page, FileListing& listing) {
  const json entries = files::parse_json(page);
  if (!entries.is_array()) throw ValueError("it is not an array");
  for (const json& entry : entries) {
    if (!entry.is_object()) throw ValueError("an entry is not an object");
    const auto type = entry.find("type");
    const auto path = entry.find("path");
    if (type == entry.end() || path == entry.end() || !type->is_string() || !path->is_string()) {
      throw ValueError("an entry has no type or path");
    }
    const auto& name = path->get_ref<const std::string&>();
    if (*type != "file" || !files::is_contained_name(name)) continue;
    const auto large = entry.find("lfs");
    try {
      const bool is_large = large != entry.end() && large->is_object();
      if (!listing.emplace(name, listed_file(is_large ? *large : entry)).second) {
        throw ValueError("comes twice");
      }
    } catch (const ValueError& error) {
      throw ValueError("the file " + in_quotes(name) + " " + error.what());
    }
    for (std::size_t end = name.find('/'); end != std::string::npos;
         end = name.find('/', end + 1)) {
      if (listing.contains(name.substr(0, end))) {
        throw ValueError(in_quotes(name.substr(0, end)) + " is both a file and a folder");
      }
    }
    const auto below = listing.lower_bound(name + "/");
    if (below != listing.end() && below->first.starts_with(name + "/")) {
      throw ValueError(in_quotes(name) + " is both a file and a folder");
    }
    if (listing.size() > kMostListedFiles) {
      throw ValueError("it has more than " + std::to_string(kMostListedFiles) + " files");
    }
  }
}

}  // namespace tovana::hub
