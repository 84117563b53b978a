#pragma once

#include <functional>
#include <initializer_list>
#include <string_view>

#include "sentence_transformers/tokenizer/json_object.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

/// What the readers of the steps in tokenizer.json share. Everything throws ModelFilesError, naming
/// file and member.
namespace tovana::sentence_transformers {

/// A step's "type", a text.
std::string_view type_of(const JsonObject& step);

/// Fails for a step of a type that nothing here does.
[[noreturn]] void refuse_type(const JsonObject& step);

/// A step has its "type", these members, and no others: what is unknown may change ids.
void refuse_others(const JsonObject& step, std::initializer_list<std::string_view> known);

/// Calls `read(step)` for the step that a member of the file is, if it is there; of a "Sequence"
/// for each of its `members`, and so on.
void for_each_step(const JsonObject& file, std::string_view name, std::string_view members,
                   const std::function<void(const JsonObject&)>& read);

/// The value of a member that has to be there.
std::string_view required_text(const JsonObject& step, std::string_view name);

/// What `make` returns; what that says against the member's value is said of the member.
template <class Make>
auto made_of(const JsonObject& step, std::string_view name, const Make& make) {
  try {
    return make();
  } catch (const files::ModelFilesError&) {
    throw;
  } catch (const ValueError& fault) {
    step.refuse(name, fault.what());
  }
}

}  // namespace tovana::sentence_transformers
