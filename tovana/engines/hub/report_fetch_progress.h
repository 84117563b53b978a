#pragma once

#include "tovana/engines/hub/fetch_progress.h"

namespace tovana::hub {

/// For whoever fetches: hands a moment to the observer, if there is one.
void report_fetch_progress(const FetchProgress& progress) noexcept;

}  // namespace tovana::hub
