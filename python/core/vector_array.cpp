#include "vector_array.h"

#include <algorithm>
#include <string>
#include <utility>

#include <nanobind/ndarray.h>

#include "interpreter.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::python {
namespace {

namespace nb = nanobind;
using embedding::Vector;

template <class Number>
void* numbers_of(const nb::object& array) {
  return nb::cast<nb::ndarray<Number, nb::ndim<2>, nb::c_contig, nb::device::cpu>>(array).data();
}

template <class Number>
void copy(std::span<const Vector> vectors, Number* to) {
  for (const Vector& vector : vectors) {
    to = std::ranges::transform(vector, to, [](double number) {
           return static_cast<Number>(number);
         }).out;
  }
}

}  // namespace

void VectorArray::add(std::span<const Vector> vectors) {
  if (_numbers == nullptr) _allocate(vectors.front().size());
  const auto other = std::ranges::find_if(
      vectors, [this](const Vector& vector) { return vector.size() != _columns; });
  if (other != vectors.end()) {
    throw RuntimeError("the backend returned vectors of " + std::to_string(_columns) + " and of " +
                       std::to_string(other->size()) + " numbers, which do not compare");
  }
  const std::size_t offset = _filled * _columns;
  _filled += vectors.size();
  const WithoutInterpreter others_may_run;
  if (_single_precision) {
    copy(vectors, static_cast<float*>(_numbers) + offset);
  } else {
    copy(vectors, static_cast<double*>(_numbers) + offset);
  }
}

nb::object VectorArray::release() {
  if (_rows == 0) _allocate(0);
  return std::move(_array);
}

void VectorArray::_allocate(std::size_t columns) {
  _columns = columns;
  _array = nb::module_::import_("numpy").attr("empty")(nb::make_tuple(_rows, columns),
                                                       _single_precision ? "float32" : "float64");
  _numbers = _single_precision ? numbers_of<float>(_array) : numbers_of<double>(_array);
}

}  // namespace tovana::python
