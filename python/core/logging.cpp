#include "logging.h"

#include <cstdint>
#include <string>
#include <utility>
#include <variant>

#include "conversions.h"
#include "interpreter.h"
#include "tovana/engines/embedding/embedding.h"

namespace tovana::python {
namespace {

namespace nb = nanobind;

const char* python_level(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "DEBUG";
    case LogLevel::info:
      return "INFO";
    case LogLevel::warning:
      break;
  }
  return "WARNING";
}

struct PythonArgument {
  nb::object operator()(std::monostate) const { return nb::none(); }
  nb::object operator()(std::int64_t value) const { return nb::int_(value); }
  nb::object operator()(double value) const { return nb::float_(value); }
  nb::object operator()(const std::string& value) const { return python_text(value); }
};

void call(nb::handle emit, const LogRecord& record) {
  nb::list arguments;
  for (const LogArgument& argument : record.arguments) {
    arguments.append(std::visit(PythonArgument(), argument));
  }
  nb::object error = nb::none();
  if (record.error) {
    error = nb::make_tuple(python_text(record.error->kind), python_text(record.error->message));
  }
  emit(python_text(record.logger), python_level(record.level), python_text(record.format),
       nb::tuple(arguments), error);
}

/// Neither sees an error of Python's that is on its way on this thread, nor leaves one.
void emit_record(nb::handle emit, const LogRecord& record) {
  const nb::error_scope pending;
  try {
    call(emit, record);
  } catch (nb::python_error& error) {
    // Ctrl-C is meant for the work that logged, which asks for it.
    if (error.matches(PyExc_KeyboardInterrupt)) PyErr_SetInterrupt();
  }
}

}  // namespace

void send_records_to(nb::callable emit) {
  // Kept for good: records may come while the interpreter takes its modules apart.
  PyObject* const kept = emit.release().ptr();
  set_log_sink([kept](const LogRecord& record) {
    const WithInterpreter interpreter;
    if (interpreter) emit_record(kept, record);
  });
  // Which records are wanted is for the loggers of Python to say.
  set_log_level(LogLevel::debug);
}

}  // namespace tovana::python
