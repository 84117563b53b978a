#pragma once

#include <nanobind/nanobind.h>

namespace tovana::python {

/// Hands every record of the component to `emit(logger, level, format, arguments, error)`, on the
/// thread that logged: `level` a name of `logging`'s, `error` None or a pair of kind and message.
/// What it raises is dropped, and so are records that come when the interpreter has ended.
void send_records_to(nanobind::callable emit);

}  // namespace tovana::python
