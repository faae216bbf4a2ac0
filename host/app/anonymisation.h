#pragma once

// Anonymised frames: a copy of the picture in which the faces are a few flat blocks.

#include "host/core/i420_frame.h"
#include "modules/face_detection/host_interface.h"

namespace tavro::host {

/// What belongs to a face beside its rectangle: hair, ears, chin.
TavroRTC::FDModule::FaceRect withMargin(const TavroRTC::FDModule::FaceRect& face);

/// Replaces the rectangle, with its margin and clipped to the frame, by the means of blocks that
/// grow with it: what is left of a face of any size are 36 colours, and nothing brings it back.
void pixelate(I420Frame& frame, const TavroRTC::FDModule::FaceRect& face);

}  // namespace tavro::host
