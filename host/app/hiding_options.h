#pragma once

// What can be said about hiding on the command line: how, where, when and whom.

#include "host/app/output/drawing.h"

namespace CLI {
class App;
}

namespace tavro::host {

/// Adds the options to the command line. Parsing it fills `options`, which must live until then.
void addHidingOptions(CLI::App& app, HidingOptions& options);

}  // namespace tavro::host
