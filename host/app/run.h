#pragma once

// One run of the application, from options to exit code.

#include "host/app/options.h"

namespace tavro::host {

/// Detects on the input, writes the results and tells the user what went wrong. Returns one of the
/// exit codes in options.h.
int run(const Options& options);

}  // namespace tavro::host
