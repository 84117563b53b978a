#include "sentence_transformers/model/linear.h"

#include <optional>
#include <string_view>

#include <ATen/core/List.h>
#include <ATen/core/dispatch/Dispatcher.h>
#include <ATen/ops/linear.h>
#include <ATen/ops/zeros.h>
#include <c10/core/Scalar.h>
#include <c10/util/Exception.h>

namespace tovana::sentence_transformers {
namespace {

/// The operators of oneDNN's packed products. They have no C++ functions of their own, so the
/// dispatcher finds them by name; which arguments they take has been the same since libtorch 2.1.
class PackedOperators {
 public:
  /// Throws c10::Error where they do not exist.
  static const PackedOperators& instance() {
    static const PackedOperators operators;
    return operators;
  }

  at::Tensor pack(const at::Tensor& weight) const { return _pack.call(weight, std::nullopt); }

  at::Tensor multiply(const at::Tensor& rows, const at::Tensor& weight, const at::Tensor& bias,
                      Activation activation) const {
    switch (activation) {
      case Activation::gelu:
        return _multiply.call(rows, weight, bias, "gelu", _no_scalars, "none");
      case Activation::gelu_tanh:
        return _multiply.call(rows, weight, bias, "gelu", _no_scalars, "tanh");
      default:
        return activate(activation,
                        _multiply.call(rows, weight, bias, "none", _no_scalars, std::nullopt));
    }
  }

 private:
  using Scalars = c10::List<std::optional<at::Scalar>>;
  using Pack = at::Tensor(const at::Tensor& weight, std::optional<std::int64_t> rows);
  using Multiply = at::Tensor(const at::Tensor& rows, const at::Tensor& weight,
                              const std::optional<at::Tensor>& bias, std::string_view attribute,
                              Scalars scalars, std::optional<std::string_view> algorithm);

  PackedOperators() = default;

  c10::TypedOperatorHandle<Pack> _pack =
      c10::Dispatcher::singleton()
          .findSchemaOrThrow("mkldnn::_reorder_linear_weight", "")
          .typed<Pack>();
  c10::TypedOperatorHandle<Multiply> _multiply =
      c10::Dispatcher::singleton()
          .findSchemaOrThrow("mkldnn::_linear_pointwise", "")
          .typed<Multiply>();
  Scalars _no_scalars;
};

/// Trying is the only way to know: a build may lack oneDNN, a processor what oneDNN asks for, and
/// the environment may have switched it off.
bool packed_kernel_works() {
  try {
    const PackedOperators& operators = PackedOperators::instance();
    const at::Tensor weight = operators.pack(at::zeros({16, 16}));
    operators.multiply(at::zeros({1, 16}), weight, at::zeros({16}), Activation::gelu);
    return true;
  } catch (const c10::Error&) {
    return false;
  }
}

}  // namespace

LinearKernel best_linear_kernel() {
  static const bool works = packed_kernel_works();
  return works ? LinearKernel::packed : LinearKernel::plain;
}

Linear::Linear(const at::Tensor& weight, const at::Tensor& bias, Activation activation,
               LinearKernel kernel)
    : _weight(kernel == LinearKernel::packed ? PackedOperators::instance().pack(weight) : weight),
      _bias(kernel == LinearKernel::packed ? bias.clone() : bias),
      _activation(activation),
      _kernel(kernel) {}

at::Tensor Linear::operator()(const at::Tensor& rows) const {
  if (_kernel == LinearKernel::packed) {
    return PackedOperators::instance().multiply(rows, _weight, _bias, _activation);
  }
  return activate(_activation, at::linear(rows, _weight, _bias));
}

}  // namespace tovana::sentence_transformers
