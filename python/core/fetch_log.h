#pragma once

namespace tovana::python {

/// From now on the log says which model is being fetched, and every few seconds how far that is.
/// Takes the place of the fetches' observer.
void log_fetches();

}  // namespace tovana::python
