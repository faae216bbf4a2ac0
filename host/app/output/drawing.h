#pragma once

// The pictures that are shown: a copy of the frame with the rectangles drawn, or with the faces
// hidden behind a few flat blocks.

#include <optional>
#include <span>

#include "host/core/i420_frame.h"
#include "modules/face_detection/host_interface.h"

namespace tavro::host {

/// A copy of the frame with samples of its own. Empty if there is no memory.
std::optional<I420Frame> copyOf(const I420Frame& frame);

/// A copy of the frame with the outline of every rectangle, clipped to the picture. Empty if
/// there is no memory.
std::optional<I420Frame> withRectangles(const I420Frame& frame,
                                        std::span<const TavroRTC::FDModule::FaceRect> faces);

/// The rectangle with a margin for what else belongs to a face: hair, ears, chin.
TavroRTC::FDModule::FaceRect withMargin(const TavroRTC::FDModule::FaceRect& face);

/// Replaces the rectangle, with its margin and clipped to the frame, with the means of blocks that
/// grow with it: 36 colours are left of a face of any size, and nothing brings it back.
void pixelate(I420Frame& frame, const TavroRTC::FDModule::FaceRect& face);

}  // namespace tavro::host
