#include "sentence_transformers/model/pooling.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <string>
#include <string_view>

#include "sentence_transformers/model/known_members.h"
#include "sentence_transformers/tokenizer/json_object.h"

namespace tovana::sentence_transformers {
namespace {

using Mode = Pooling::Mode;

struct NamedMode {
  std::string_view name;
  std::string_view old_flag;  ///< A member of its own, true or false, in configurations before 6.0.
  Mode mode;
};

/// In the order in which the results of the old flags stand side by side.
constexpr std::array<NamedMode, 6> kModes = {{
    {"cls", "pooling_mode_cls_token", Mode::cls},
    {"max", "pooling_mode_max_tokens", Mode::max},
    {"mean", "pooling_mode_mean_tokens", Mode::mean},
    {"mean_sqrt_len_tokens", "pooling_mode_mean_sqrt_len_tokens", Mode::mean_sqrt_len_tokens},
    {"weightedmean", "pooling_mode_weightedmean_tokens", Mode::weightedmean},
    {"lasttoken", "pooling_mode_lasttoken", Mode::lasttoken},
}};

constexpr auto kMembers = [] {
  std::array<KnownMember, kModes.size() + 4> members;
  std::ranges::transform(kModes, members.begin(), [](const NamedMode& mode) {
    return KnownMember{mode.old_flag, ""};
  });
  constexpr std::array<std::string_view, 4> kOthers = {
      "pooling_mode", "embedding_dimension", "word_embedding_dimension", "include_prompt"};
  std::ranges::transform(kOthers, members.begin() + kModes.size(), [](std::string_view name) {
    return KnownMember{name, ""};
  });
  return members;
}();

Mode mode_of(const JsonObject::Value& name, const JsonObject& settings) {
  std::string_view text;
  if (name.get(text) != simdjson::SUCCESS)
    settings.refuse("\"pooling_mode\" should be a string or a list of strings");
  const auto* const mode = std::ranges::find(kModes, text, &NamedMode::name);
  if (mode == kModes.end()) {
    std::string known;
    for (const NamedMode& each : kModes)
      known += (known.empty() ? "" : ", ") + std::string(each.name);
    settings.refuse("\"pooling_mode\" is " + files::in_quotes(text) + "; supported: " + known);
  }
  return mode->mode;
}

std::vector<Mode> modes_of(const JsonObject& settings) {
  std::vector<Mode> modes;
  const auto value = settings.find("pooling_mode");
  if (!value) {
    if (settings.contains("pooling_mode")) settings.refuse("\"pooling_mode\" is null");
    for (const NamedMode& each : kModes) {
      if (settings.flag(each.old_flag).value_or(false)) modes.push_back(each.mode);
    }
    if (modes.empty()) modes.push_back(Mode::mean);
  } else if (value->is_array()) {
    for (const JsonObject::Value& name : value->get_array())
      modes.push_back(mode_of(name, settings));
    if (modes.empty()) settings.refuse("\"pooling_mode\" is empty");
  } else {
    modes.push_back(mode_of(*value, settings));
  }
  return modes;
}

/// The tokens of one text: rows of `width` floats.
struct Rows {
  const float* data;
  std::size_t width;
  std::size_t first;  ///< The first that counts.
  std::size_t length;

  const float* row(std::size_t index) const { return data + index * width; }
};

void copy_row(const Rows& rows, std::size_t index, float* out) {
  std::copy_n(rows.row(index), rows.width, out);
}

void take_maximum(const Rows& rows, float* out) {
  copy_row(rows, rows.first, out);
  for (std::size_t index = rows.first + 1; index < rows.length; ++index) {
    const float* const row = rows.row(index);
    for (std::size_t i = 0; i < rows.width; ++i) out[i] = std::max(out[i], row[i]);
  }
}

void take_mean(const Rows& rows, Mode mode, float* out) {
  // In float64, or the error of the sum would grow with the text.
  std::vector<double> sums(rows.width, 0.0);
  double weights = 0;
  for (std::size_t index = rows.first; index < rows.length; ++index) {
    const double weight = mode == Mode::weightedmean ? static_cast<double>(index + 1) : 1.0;
    const float* const row = rows.row(index);
    for (std::size_t i = 0; i < rows.width; ++i) sums[i] += weight * static_cast<double>(row[i]);
    weights += weight;
  }
  const double divisor = mode == Mode::mean_sqrt_len_tokens ? std::sqrt(weights) : weights;
  for (std::size_t i = 0; i < rows.width; ++i) out[i] = static_cast<float>(sums[i] / divisor);
}

void pool(const Rows& rows, Mode mode, float* out) {
  switch (mode) {
    case Mode::cls:
      return copy_row(rows, rows.first, out);
    case Mode::lasttoken:
      return copy_row(rows, rows.length - 1, out);
    case Mode::max:
      return take_maximum(rows, out);
    case Mode::mean:
    case Mode::mean_sqrt_len_tokens:
    case Mode::weightedmean:
      return take_mean(rows, mode, out);
  }
}

}  // namespace

Pooling Pooling::read(const files::ModelDirectory& directory, std::int64_t width) {
  const JsonObject settings = JsonObject::read_required(directory, "config.json");
  check_members(settings, {.members = kMembers, .is_complete = true});
  constexpr const char* kDimension = "embedding_dimension";
  constexpr const char* kOldDimension = "word_embedding_dimension";
  if (!settings.find(settings.contains(kDimension) ? kDimension : kOldDimension)) {
    settings.refuse(files::in_quotes(kDimension) + " is missing");
  }
  for (const char* name : {kDimension, kOldDimension}) {
    if (settings.count(name).value_or(width) != width) {
      settings.refuse(files::in_quotes(name) + " is " + std::to_string(*settings.count(name)) +
                      ", and the encoder's vectors have " + std::to_string(width) + " floats");
    }
  }
  return {width, modes_of(settings), settings.flag("include_prompt").value_or(true)};
}

void Pooling::operator()(const float* tokens, const TokenBatch& batch, std::size_t skipped,
                         float* out) const {
  const auto width = static_cast<std::size_t>(_width);
  for (const TokenBatch::Group& group : batch.groups()) {
    const auto length = static_cast<std::size_t>(group.length);
    const std::size_t first = std::min(skipped, length - 1);
    for (std::int64_t text = 0; text < group.texts; ++text, tokens += length * width) {
      for (const Mode mode : _modes) {
        pool({.data = tokens, .width = width, .first = first, .length = length}, mode, out);
        out += width;
      }
    }
  }
}

}  // namespace tovana::sentence_transformers
