#pragma once

// A drawing of where a face is over time, as an SVG file.

#include <span>
#include <string>

#include "tools/jitter/steadiness.h"

namespace tavro::jitter {

/// The centre's way from left to right and the size over time, raw beside tracked, for the face
/// that is seen in most frames. `truth` may be empty.
std::string plot(std::span<const Sighting> raw, std::span<const Sighting> tracked,
                 std::span<const FaceRect> truth);

}  // namespace tavro::jitter
