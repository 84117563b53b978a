#pragma once

#include <span>
#include <string_view>

#include "sentence_transformers/tokenizer/json_object.h"

namespace tovana::sentence_transformers {

/// A member that one of a model's configuration files may hold.
struct KnownMember {
  std::string_view name;  ///< Of a member inside another one: "outer.inner".
  /// JSON: the one value that it may have, for what another one asks for is not implemented. Empty:
  /// any, since it is read elsewhere or changes no vector.
  std::string_view only;
  bool is_null_absent = true;  ///< Or else a null is a value as any other.
};

/// The members of a file.
struct KnownMembers {
  std::span<const KnownMember> members;
  /// Whether others are refused. They are where the models' own library hands every member on to
  /// its modules; what config.json holds beside the names that an encoder's code asks for, and very
  /// many hold something, is passed over there too.
  bool is_complete;
};

extern const KnownMembers kConfigMembers;                ///< config.json
extern const KnownMembers kSentenceBertMembers;          ///< sentence_bert_config.json
extern const KnownMembers kSentenceTransformersMembers;  ///< config_sentence_transformers.json

/// The settings in sentence_bert_config.json that stand above those of the tokenizer's own files.
inline constexpr std::string_view kProcessorSettings = "processor_kwargs";
inline constexpr std::string_view kOldProcessorSettings = "tokenizer_args";

/// Throws ModelFilesError, naming file and member, for a member that might change vectors in a way
/// that is not implemented.
void check_members(const JsonObject& settings, const KnownMembers& known);

}  // namespace tovana::sentence_transformers
