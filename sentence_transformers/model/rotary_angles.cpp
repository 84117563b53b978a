#include "sentence_transformers/model/rotary_angles.h"

#include <cmath>

namespace tovana::sentence_transformers {

// Frequencies and angles are rounded to floats where the models' own code rounds them: at thousands
// of tokens, the digits that are lost there move the angle.
RotaryAngles::RotaryAngles(const RotaryPositions& rotary, std::size_t head_width) {
  for (std::size_t i = 0; i < head_width; i += 2) {
    const float exponent = static_cast<float>(i) / static_cast<float>(head_width);
    const auto power = static_cast<float>(
        std::pow(static_cast<double>(static_cast<float>(rotary.theta)), exponent));
    _frequencies.push_back(1.0F / power / static_cast<float>(rotary.factor));
  }
}

void RotaryAngles::fill(std::size_t length, float* out) const {
  for (std::size_t position = 0; position < length; ++position) {
    float* const sines = out + _frequencies.size();
    for (std::size_t i = 0; i < _frequencies.size(); ++i) {
      const double angle = static_cast<float>(position) * _frequencies[i];
      out[i] = static_cast<float>(std::cos(angle));
      sines[i] = static_cast<float>(std::sin(angle));
    }
    out = sines + _frequencies.size();
  }
}

}  // namespace tovana::sentence_transformers
