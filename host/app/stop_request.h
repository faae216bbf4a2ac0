#pragma once

// Ctrl-C (SIGINT) and SIGTERM end the input instead of the process, so that a recording from a
// camera ends with complete files. A second signal ends the process the usual way.

namespace tavro::host {

void catchStopSignals();
bool isStopRequested();

}  // namespace tavro::host
