#pragma once

// Draws the outlines of faces into a picture in 4:2:0 sampling where it lies, planar or with its
// chroma interleaved.

#include <cstddef>
#include <cstdint>
#include <span>

#include "host/core/i420_frame.h"

namespace tavro::host {

/// The Y, U or V of a picture: every `step`th byte of every row.
struct Component {
  uint8_t* samples = nullptr;
  ptrdiff_t stride = 0;  ///< bytes from row to row
  ptrdiff_t step = 1;    ///< bytes from sample to sample
};

/// How thick the outlines are in a picture of that size, in pixels: an even number.
int64_t lineThickness(int32_t width, int32_t height);

/// Draws the outline of every rectangle. Lines lie inside the rectangles and are clipped to the
/// picture, whose size is in pixels; rectangles may lie anywhere.
void drawOutlines(std::span<const Component, planeCount> picture, int32_t width, int32_t height,
                  std::span<const TavroRTC::FDModule::FaceRect> faces);

}  // namespace tavro::host
