#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tovana::tool {

/// Which members of an object say what it is.
struct RecordMembers {
  std::vector<std::string> text = {"text"};  ///< At least one of them is there.
  std::vector<std::string> id;               ///< All of them are.
};

/// One line of a JSON Lines file.
struct JsonRecord {
  /// The texts of the object's members, in the order of RecordMembers, with a space between two.
  std::string text;
  std::string id;       ///< The strings and numbers of its members, with a tab between two.
  std::string members;  ///< All members but the replaced ones, as they were written and in their
                        ///< order: `"a":1,"text":"…"`.
};

/// Reads one JSON object; `line` is well-formed UTF-8. Of several members of the same name the last
/// one counts. A text that is null is not there. Members named in `replaced` are left out for those
/// that the tool is going to write. Members are never converted, so numbers keep their digits. Null
/// for the notes about itself that universal-ctags writes among its tags, whose `_type` is "ptag".
/// Throws ValueError, saying what is wrong with the line.
std::optional<JsonRecord> parse_json_record(std::string_view line, const RecordMembers& members,
                                            const std::vector<std::string>& replaced);

/// What is left of the members that such a record has, `"a":1,"b":2`, without those in `replaced`.
std::string without_members(std::string_view members, const std::vector<std::string>& replaced);

}  // namespace tovana::tool
