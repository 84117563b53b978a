#include "sentence_transformers/model/checkpoint.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <optional>
#include <utility>

#include "sentence_transformers/compute/finite.h"
#include "sentence_transformers/compute/float_block.h"
#include "sentence_transformers/compute/workers.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

std::string current_name(std::string_view name, std::span<const std::string_view> prefixes) {
  const auto prefix = std::ranges::find_if(
      prefixes, [name](std::string_view before) { return name.starts_with(before); });
  if (prefix != prefixes.end()) name.remove_prefix(prefix->size());
  constexpr std::array<std::pair<std::string_view, std::string_view>, 2> kRenamed = {{
      {"LayerNorm.gamma", "LayerNorm.weight"},
      {"LayerNorm.beta", "LayerNorm.bias"},
  }};
  for (const auto& [old_end, new_end] : kRenamed) {
    if (name.ends_with(old_end)) {
      name.remove_suffix(old_end.size());
      return std::string(name) + std::string(new_end);
    }
  }
  return std::string(name);
}

constexpr std::size_t kRowsAtOnce = 32;

struct Extents {
  std::size_t rows;
  std::size_t columns;
};

/// Of the matrix that a tensor is: the last extent is that of a row.
Extents extents_of(const TensorEntry& tensor) {
  const auto columns = static_cast<std::size_t>(tensor.shape.empty() ? 1 : tensor.shape.back());
  const auto count = static_cast<std::size_t>(tensor.element_count());
  return {.rows = columns == 0 ? 0 : count / columns, .columns = columns};
}

/// Reads a table in parts of about the same size.
class TableCopy final : public SteppedWork {
 public:
  TableCopy(const StoredTensor& tensor, std::span<float> out) : _tensor(tensor), _out(out) {}

  std::size_t parts() const { return (_out.size() + kPart - 1) / kPart; }

  void run(std::size_t, std::size_t part) override {
    const std::size_t first = part * kPart;
    const std::size_t count = std::min(kPart, _out.size() - first);
    const std::span<float> read = _out.subspan(first, count);
    _tensor.file->read_float32(*_tensor.entry, first, read);
    if (!sentence_transformers::is_finite(read)) _is_finite = false;
  }

  bool is_finite() const noexcept { return _is_finite; }

 private:
  static constexpr std::size_t kPart = std::size_t{1} << 20U;

  const StoredTensor& _tensor;
  const std::span<float> _out;
  std::atomic<bool> _is_finite = true;
};

}  // namespace

std::string shape_text(std::span<const std::int64_t> shape) {
  std::string text = "[";
  for (const std::int64_t extent : shape) {
    if (text.size() > 1) text += ", ";
    text += std::to_string(extent);
  }
  return text + "]";
}

Checkpoint::Checkpoint(const files::ModelDirectory& directory,
                       std::span<const std::string_view> prefixes)
    : _weights(Weights::open(directory)) {
  for (const auto& [name, tensor] : _weights.tensors()) {
    const std::string current = current_name(name, prefixes);
    if (!_tensors.try_emplace(current, &tensor).second) {
      refuse("the tensor " + files::in_quotes(name) + " is there under another name, too: as " +
             files::in_quotes(current) + ", or as what stands for that in older models");
    }
  }
}

const std::vector<std::int64_t>* Checkpoint::shape(std::string_view name) const {
  const auto found = _tensors.find(name);
  return found == _tensors.end() ? nullptr : &found->second->entry->shape;
}

void Checkpoint::expect(const std::string& name, std::initializer_list<std::int64_t> shape) const {
  if (!contains(name)) {
    refuse("no tensor " + files::in_quotes(name) + " of shape " + shape_text(shape) +
           " in the weights");
  }
  const TensorEntry& entry = *_find(name).entry;
  if (!std::ranges::equal(entry.shape, shape)) {
    refuse("the tensor " + files::in_quotes(name) + " has the shape " + shape_text(entry.shape) +
           ", and the configuration asks for " + shape_text(shape));
  }
}

const StoredTensor& Checkpoint::_find(const std::string& name) const {
  const auto found = _tensors.find(name);
  if (found == _tensors.end()) refuse("no tensor " + files::in_quotes(name) + " in the weights");
  try {
    check_weight_type(found->second->entry->dtype);
  } catch (const ValueError& error) {
    refuse("the tensor " + files::in_quotes(name) + ": " + error.what());
  }
  return *found->second;
}

Matrix Checkpoint::tensor(const std::string& name) const {
  const StoredTensor& tensor = _find(name);
  const Extents extents = extents_of(*tensor.entry);
  Matrix matrix(extents.rows, extents.columns);
  const std::span<float> numbers(matrix.mutable_data(), matrix.size());
  tensor.file->read_float32(*tensor.entry, 0, numbers);
  if (!is_finite(numbers)) _refuse_not_finite(name);
  return matrix;
}

void Checkpoint::for_rows(const std::string& name, Range rows, const RowsBody& body) const {
  const StoredTensor& tensor = _find(name);
  const std::size_t columns = extents_of(*tensor.entry).columns;
  const std::optional<std::span<const float>> in_place = tensor.file->in_place(*tensor.entry);
  const FloatBlock copy(in_place ? 0 : std::min(rows.count, kRowsAtOnce) * columns);
  for (std::size_t done = 0; done < rows.count; done += kRowsAtOnce) {
    const std::size_t count = std::min(kRowsAtOnce, rows.count - done);
    const std::size_t begin = (rows.first + done) * columns;
    std::span<const float> numbers(copy.data(), count * columns);
    if (in_place) {
      numbers = in_place->subspan(begin, count * columns);
    } else {
      tensor.file->read_float32(*tensor.entry, begin, {copy.data(), count * columns});
    }
    if (!is_finite(numbers)) _refuse_not_finite(name);
    body(done, count, numbers.data());
  }
  tensor.file->discard(*tensor.entry, rows.first * columns, rows.count * columns);
}

void Checkpoint::for_rows(const std::string& name, const RowsBody& body) const {
  for_rows(name, {.first = 0, .count = extents_of(*_find(name).entry).rows}, body);
}

Table Checkpoint::table(const std::string& name, std::size_t threads) const {
  const StoredTensor& tensor = _find(name);
  const auto [rows, columns] = extents_of(*tensor.entry);
  if (const std::optional<std::span<const float>> in_place = tensor.file->in_place(*tensor.entry)) {
    return {.matrix = Matrix::view(in_place->data(), rows, columns),
            .memory = tensor.file->mapping()};
  }
  Table table = {.matrix = Matrix(rows, columns), .memory = nullptr};
  TableCopy copy(tensor, {table.matrix.mutable_data(), table.matrix.size()});
  run_steps(copy, 1, copy.parts(), threads);
  if (!copy.is_finite()) _refuse_not_finite(name);
  tensor.file->discard(*tensor.entry, 0, table.matrix.size());
  return table;
}

void Checkpoint::_refuse_not_finite(const std::string& name) const {
  refuse("the tensor " + files::in_quotes(name) +
         " holds an infinity or NaN, of which no vector comes: the model is damaged");
}

void Checkpoint::refuse(const std::string& fault) const {
  throw files::ModelFilesError(_weights.path() + ": " + fault);
}

}  // namespace tovana::sentence_transformers
