#include "sentence_transformers/model/sentence_modules.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <utility>

#include "sentence_transformers/model/activation.h"
#include "sentence_transformers/model/checkpoint.h"
#include "sentence_transformers/tokenizer/json_object.h"

namespace tovana::sentence_transformers {
namespace {

/// Modules hand their results on under names. One name is all that is needed between the pooling
/// and the vector; a module that reads or writes another is not a step from text to text.
void check_names(const JsonObject& settings) {
  constexpr const char* kName = "sentence_embedding";
  for (const char* member : {"module_input_name", "module_output_name"}) {
    const std::string_view name = settings.text(member).value_or(kName);
    if (name != kName) {
      settings.refuse(files::in_quotes(member) + " is " + files::in_quotes(name) +
                      "; supported: " + kName);
    }
  }
}

std::int64_t required_count(const JsonObject& settings, const char* name) {
  const std::optional<std::int64_t> count = settings.count(name);
  if (!count) settings.refuse(files::in_quotes(name) + " is missing");
  return *count;
}

void check_width(const JsonObject& settings, const char* name, std::int64_t width) {
  if (const std::int64_t given = required_count(settings, name); given != width) {
    settings.refuse(files::in_quotes(name) + " is " + std::to_string(given) + ", and " +
                    std::to_string(width) + " floats come in");
  }
}

/// A weight `[out x in]` and its bias, or none.
PackedMatrix load_linear(const Checkpoint& checkpoint, const std::string& weight, const char* bias,
                         const Kernels& kernels) {
  const std::vector<std::int64_t>& shape = *checkpoint.shape(weight);
  const auto depth = static_cast<std::size_t>(shape[1]);
  PackedMatrix matrix(kernels, depth, static_cast<std::size_t>(shape[0]));
  const Matrix biases = bias == nullptr ? Matrix() : checkpoint.tensor(bias);
  checkpoint.for_rows(weight, [&](std::size_t first, std::size_t count, const float* rows) {
    matrix.set_columns(first, count, rows, depth,
                       bias == nullptr ? nullptr : biases.data() + first);
  });
  return matrix;
}

TextVectors multiply(const PackedMatrix& matrix, const TextVectors& vectors, std::size_t width) {
  TextVectors result = {
      .texts = vectors.texts, .width = width, .stride = matrix.padded_columns(), .numbers = {}};
  result.numbers.resize(result.texts * result.stride);
  std::vector<float> scratch(matrix.scratch_size(vectors.texts));
  matrix.multiply(vectors.texts, vectors.numbers.data(), vectors.stride, result.numbers.data(),
                  scratch.data());
  return result;
}

void add(const Kernels& kernels, const TextVectors& other, TextVectors& to) {
  kernels.add({.rows = to.texts,
               .width = to.width,
               .left = to.numbers.data(),
               .left_stride = to.stride,
               .right = other.numbers.data(),
               .right_stride = other.stride,
               .out = to.numbers.data(),
               .out_stride = to.stride});
}

/// One for each kind of module.
struct Application {
  const Kernels& kernels;
  TextVectors& vectors;

  void operator()(const Normalize&) const {
    for (std::size_t text = 0; text < vectors.texts; ++text) {
      normalize_vector(vectors.row(text), vectors.width, vectors.row(text));
    }
  }

  void operator()(const Dense& dense) const {
    TextVectors result = multiply(dense.linear, vectors, dense.width);
    kernels.activate(dense.activation, result.numbers.data(), result.numbers.size());
    if (dense.has_residual) {
      add(kernels, dense.residual ? multiply(*dense.residual, vectors, dense.width) : vectors,
          result);
    }
    vectors = std::move(result);
  }

  void operator()(const LayerNorm& norm) const {
    norm(kernels, vectors.texts, vectors.numbers.data(), vectors.stride, vectors.numbers.data(),
         vectors.stride);
  }
};

}  // namespace

void normalize_vector(const float* in, std::size_t width, float* out) {
  double squares = 0;
  for (std::size_t i = 0; i < width; ++i) squares += static_cast<double>(in[i]) * in[i];
  const double length = std::max(std::sqrt(squares), 1e-12);
  for (std::size_t i = 0; i < width; ++i) out[i] = static_cast<float>(in[i] / length);
}

FoundModule find_normalize(const files::ModelDirectory& directory, std::int64_t width) {
  if (const auto settings = JsonObject::read(directory, "config.json")) check_names(*settings);
  return {.width = width, .load = [](const Kernels&) { return Normalize(); }};
}

FoundModule find_dense(const files::ModelDirectory& directory, std::int64_t width) {
  const JsonObject settings = JsonObject::read_required(directory, "config.json");
  check_names(settings);
  check_width(settings, "in_features", width);
  const std::int64_t out = required_count(settings, "out_features");
  const std::string_view name =
      settings.text("activation_function").value_or("torch.nn.modules.activation.Tanh");
  const std::optional<Activation> activation = activation_from_class(name);
  if (!activation) {
    settings.refuse("\"activation_function\" is " + files::in_quotes(name) +
                    "; supported: " + std::string(kActivationClasses));
  }
  const bool has_residual = settings.flag("use_residual").value_or(false);
  const bool has_bias = settings.flag("bias").value_or(true);

  const auto checkpoint = std::make_shared<const Checkpoint>(directory);
  checkpoint->expect("linear.weight", {out, width});
  if (has_bias) checkpoint->expect("linear.bias", {out});
  if (has_residual && out != width) checkpoint->expect("residual.weight", {out, width});

  const auto load = [=, activation = *activation](const Kernels& kernels) {
    Dense dense = {.width = static_cast<std::size_t>(out),
                   .linear = load_linear(*checkpoint, "linear.weight",
                                         has_bias ? "linear.bias" : nullptr, kernels),
                   .activation = activation,
                   .has_residual = has_residual,
                   .residual = std::nullopt};
    if (has_residual && out != width) {
      dense.residual = load_linear(*checkpoint, "residual.weight", nullptr, kernels);
    }
    checkpoint->check_unchanged();
    return dense;
  };
  return {.width = out, .load = load};
}

FoundModule find_layer_norm(const files::ModelDirectory& directory, std::int64_t width) {
  check_width(JsonObject::read_required(directory, "config.json"), "dimension", width);
  const auto checkpoint = std::make_shared<const Checkpoint>(directory);
  for (const char* name : {"norm.weight", "norm.bias"}) checkpoint->expect(name, {width});
  const auto load = [checkpoint](const Kernels&) {
    LayerNorm norm = {.weight = checkpoint->tensor("norm.weight"),
                      .bias = checkpoint->tensor("norm.bias"),
                      .eps = 1e-5};
    checkpoint->check_unchanged();
    return norm;
  };
  return {.width = width, .load = load};
}

void apply_module(const SentenceModule& module, const Kernels& kernels, TextVectors& vectors) {
  std::visit(Application{.kernels = kernels, .vectors = vectors}, module);
}

}  // namespace tovana::sentence_transformers
