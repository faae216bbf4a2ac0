#pragma once

// One run of the application, from options to exit code.

#include "host/image_app/options.h"

namespace tavro::host::image {

/// Reads the picture, has it converted or scaled, and writes the result; tells the user what went
/// wrong. Nothing is written before all else has succeeded.
int run(const Options& options);

}  // namespace tavro::host::image
