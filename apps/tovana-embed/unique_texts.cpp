#include "unique_texts.h"

#include <string_view>
#include <unordered_map>

namespace tovana::tool {

UniqueTexts::UniqueTexts(const std::vector<std::string>& texts) {
  std::unordered_map<std::string_view, std::size_t> numbers;
  numbers.reserve(texts.size());
  number_of.reserve(texts.size());
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const auto [number, is_new] = numbers.emplace(texts[i], places.size());
    if (is_new) places.push_back(i);
    number_of.push_back(number->second);
  }
}

}  // namespace tovana::tool
