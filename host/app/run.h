#pragma once

// One run of the application, from options to exit code, or one after the other for several inputs.

#include "host/app/options.h"
#include "host/app/search/statistics.h"

namespace tavro::host {

/// Detects on the input, writes the results and tells the user what went wrong. Returns one of the
/// exit codes in options.h.
int run(const Options& options, ProgressLine& progress);

/// Runs over all inputs, whatever happens to one of them, and sums up. What a run writes has .part
/// in its name until it is complete. Returns one of the exit codes in options.h.
int runBatch(const Batch& batch);

}  // namespace tavro::host
