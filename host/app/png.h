#pragma once

// PNG pictures in memory, implemented by the build's media folder.

#include <cstdint>
#include <vector>

#include "host/core/i420_frame.h"

namespace tavro::host {

/// The bytes of a PNG file; empty on failure. `colorMatrix` as of VideoInput.
std::vector<uint8_t> encodePng(const I420Frame& frame, int32_t colorMatrix);

}  // namespace tavro::host
