#pragma once

#include <optional>
#include <string_view>

#include "sentence_transformers/compute/kernels.h"

namespace tovana::sentence_transformers {

/// By the name that a config.json gives to `hidden_act`; none for an unknown one.
std::optional<Activation> activation_from_hidden_act(std::string_view name) noexcept;
/// The names that the former knows, for a message.
inline constexpr std::string_view kHiddenActs =
    "gelu, gelu_fast, gelu_new, gelu_python, gelu_pytorch_tanh, relu, silu, swish, tanh";

/// By the class path that a Dense module gives to `activation_function`; none for an unknown one.
std::optional<Activation> activation_from_class(std::string_view path) noexcept;
inline constexpr std::string_view kActivationClasses =
    "Identity, GELU, ReLU, Sigmoid, SiLU, Tanh of torch.nn";

}  // namespace tovana::sentence_transformers
