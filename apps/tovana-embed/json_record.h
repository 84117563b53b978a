#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tovana::tool {

/// One line of a JSON Lines file.
struct JsonRecord {
  std::string text;     ///< The member "text"; the last one, if there are several.
  std::string members;  ///< All members but the replaced one, as they were written and in their
                        ///< order: `"a":1,"text":"…"`.
};

/// Reads one JSON object; `line` is well-formed UTF-8. Members named in `replaced` are left out
/// for those that the tool is going to write, which are not "text". Members other than the text are
/// never converted, so numbers keep their digits. Throws ValueError, saying what is wrong with the
/// line.
JsonRecord parse_json_record(std::string_view line, const std::vector<std::string>& replaced);

}  // namespace tovana::tool
