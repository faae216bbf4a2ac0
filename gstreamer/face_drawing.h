#pragma once

// Draws outlines into a picture where it lies.

#include <gst/video/video.h>

#include <span>

#include "gstreamer/face_identities.h"

namespace tavro::gstreamer {

/// Draws the outline of every face into a picture in I420 or NV12 that is mapped for writing. Lines
/// lie inside the rectangles and are clipped to the picture; their thickness goes with its size.
void drawFaces(GstVideoFrame& picture, std::span<const Face> faces);

}  // namespace tavro::gstreamer
