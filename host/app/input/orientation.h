#pragma once

// How a stored picture has to be turned to be seen upright: one of the eight ways to lay a
// rectangle on its sides. Containers and cameras store it as a 3x3 display matrix.

#include <cstdint>
#include <optional>

#include "host/core/i420_frame.h"

namespace tavro::host {

/// The upright picture is the stored one, first with x and y exchanged if `transpose`, then
/// mirrored left to right if `flipX` and top to bottom if `flipY`.
struct Orientation {
  bool transpose = false;
  bool flipX = false;
  bool flipY = false;

  bool isUpright() const { return !transpose && !flipX && !flipY; }
};

/// Reads a display matrix (ISO/IEC 14496-12, nine 16.16 and 2.30 numbers, row vectors multiplied
/// from the left). Angles that aren't a multiple of 90 degrees count as upright: such a picture
/// can't be turned without resampling it.
Orientation orientationOf(const int32_t* displayMatrix);

/// An upright copy of the frame, sample for sample. Empty if there is no memory.
std::optional<I420Frame> turnedUpright(const I420Frame& stored, Orientation orientation);

}  // namespace tavro::host
