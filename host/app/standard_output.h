#pragma once

// Modules print diagnostics to the process's standard output. This keeps them out of the results:
// the real standard output moves to a private stream, and its place is taken by the standard error.

#include "host/app/process.h"

namespace tavro::host {

/// From here on everything written to descriptor 1 goes to the standard error. Returns the stream
/// that still leads to where descriptor 1 led before; null if that was closed.
StreamHandle divertStandardOutput();

}  // namespace tavro::host
