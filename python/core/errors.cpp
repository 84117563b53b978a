#include "errors.h"

#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>

#include <nanobind/nanobind.h>

#include "conversions.h"
#include "tovana/engines/embedding/engine/status.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::python {
namespace {

namespace nb = nanobind;

/// The class of our errors of that kind; of a kind that Python does not know, its nearest relative.
nb::object class_of(const Error& error) {
  const nb::module_ errors = nb::module_::import_("tovana_embedding.errors");
  if (nb::hasattr(errors, error.kind())) return errors.attr(error.kind());
  const bool is_value = dynamic_cast<const std::invalid_argument*>(&error) != nullptr;
  return errors.attr(is_value ? "ValueError" : "RuntimeError");
}

nb::object python_error(const std::exception_ptr& error);

nb::object python_error(const embedding::EmbeddingNotReadyError& error) {
  nb::object made = class_of(error)(python_text(error.what()), python_status(error.status()));
  if (error.cause() != nullptr) made.attr("__cause__") = python_error(error.cause());
  return made;
}

/// An instance of the class, or none for what nanobind knows as well.
nb::object python_error(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const embedding::EmbeddingNotReadyError& not_ready) {
    return python_error(not_ready);
  } catch (const Error& ours) {
    return class_of(ours)(python_text(ours.what()));
  } catch (const std::system_error& system) {
    return nb::borrow(PyExc_OSError)(system.code().value(), python_text(system.what()));
  } catch (const std::exception& other) {
    return nb::borrow(PyExc_RuntimeError)(python_text(failure_text(other)));
  }
}

void translate(const std::exception_ptr& error, void* /*payload*/) {
  nb::object made;
  try {
    std::rethrow_exception(error);
  } catch (const embedding::EmbeddingNotReadyError& not_ready) {
    made = python_error(not_ready);
  } catch (const Error& /*ours*/) {
    made = python_error(error);
  } catch (const std::system_error& /*system*/) {
    made = python_error(error);
  }
  PyErr_SetObject(made.type().ptr(), made.ptr());
}

}  // namespace

void translate_errors() { nb::register_exception_translator(translate); }

}  // namespace tovana::python
