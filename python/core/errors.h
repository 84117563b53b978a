#pragma once

/// The component's errors as Python's: the classes of `tovana_embedding.errors`, by their names.
namespace tovana::python {

/// Errors that leave a function of this module become Python's from now on. An
/// EmbeddingNotReadyError has `status`, and what the load failed with as its `__cause__`.
void translate_errors();

}  // namespace tovana::python
