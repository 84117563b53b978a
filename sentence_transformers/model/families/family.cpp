#include "sentence_transformers/model/families/family.h"

#include <algorithm>
#include <array>

#include "tovana/files/architectures.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::array kFamilies = {&kBert,      &kCamembert, &kDistilBert, &kElectra,
                                  &kGte,       &kMPNet,     &kModernBert, &kNew,
                                  &kNomicBert, &kRoberta,   &kXlmRoberta};
static_assert(kFamilies.size() == files::kArchitectures.size());

}  // namespace

const Family& family_of(const JsonObject& config) {
  const std::string_view type = config.text("model_type").value_or("");
  const auto found = std::ranges::find(kFamilies, type, &Family::model_type);
  if (found == kFamilies.end()) config.refuse(files::unknown_architecture(type));
  return **found;
}

}  // namespace tovana::sentence_transformers
