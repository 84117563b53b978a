#include "sentence_transformers/model/activation.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tovana::sentence_transformers {
namespace {

using Named = std::pair<std::string_view, Activation>;

constexpr std::array kByHiddenAct = {
    Named{"gelu", Activation::gelu},          Named{"gelu_fast", Activation::gelu_tanh},
    Named{"gelu_new", Activation::gelu_tanh}, Named{"gelu_pytorch_tanh", Activation::gelu_tanh},
    Named{"gelu_python", Activation::gelu},   Named{"relu", Activation::relu},
    Named{"silu", Activation::silu},          Named{"swish", Activation::silu},
    Named{"tanh", Activation::tanh},
};

constexpr std::array kByClass = {
    Named{"GELU", Activation::gelu},       Named{"Identity", Activation::identity},
    Named{"ReLU", Activation::relu},       Named{"SiLU", Activation::silu},
    Named{"Sigmoid", Activation::sigmoid}, Named{"Tanh", Activation::tanh},
};

template <typename Table>
std::optional<Activation> find(const Table& table, std::string_view name) noexcept {
  const auto entry = std::ranges::find(table, name, &Named::first);
  if (entry == table.end()) return std::nullopt;
  return entry->second;
}

}  // namespace

std::optional<Activation> activation_from_hidden_act(std::string_view name) noexcept {
  return find(kByHiddenAct, name);
}

std::optional<Activation> activation_from_class(std::string_view path) noexcept {
  // A class is at its module's path and at those that hand it on.
  const std::size_t name_at = path.rfind('.') + 1;
  const std::string_view module = path.substr(0, name_at);
  const auto activation = find(kByClass, path.substr(name_at));
  const std::string_view own = activation == Activation::identity ? "torch.nn.modules.linear."
                                                                  : "torch.nn.modules.activation.";
  if (module != own && module != "torch.nn.modules." && module != "torch.nn.") return std::nullopt;
  return activation;
}

}  // namespace tovana::sentence_transformers
