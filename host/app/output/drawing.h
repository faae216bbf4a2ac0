#pragma once

// The pictures that are shown: a copy of the frame with the rectangles drawn, or with the faces
// hidden.

#include <optional>
#include <span>

#include "host/core/face_drawing.h"
#include "host/core/i420_frame.h"
#include "modules/face_detection/host_interface.h"

namespace tavro::host {

/// A copy of the frame with samples of its own. Empty if there is no memory.
std::optional<I420Frame> copyOf(const I420Frame& frame);

/// A copy of the frame with the outline of every rectangle, clipped to the picture. Empty if
/// there is no memory.
std::optional<I420Frame> withRectangles(const I420Frame& frame,
                                        std::span<const TavroRTC::FDModule::FaceRect> faces);

/// Hides the face in the frame, which has samples of its own.
void hideFace(I420Frame& frame, const TavroRTC::FDModule::FaceRect& face, Hiding how);

}  // namespace tavro::host
