#pragma once

// Hides faces in a picture in 4:2:0 sampling where it lies, planar or with its chroma interleaved.

#include <cstdint>
#include <span>

#include "host/core/outlines.h"

namespace tavro::host {

/// What is left of a face. Nothing brings it back: of its samples, no more than 36 means are used.
enum class Hiding : int32_t {
  pixelate,  ///< the means of blocks that grow with the face, as flat blocks
  blur,      ///< the same means, one running into the next
  solid,     ///< black
};

/// The rectangle with a margin for what else belongs to a face: hair, ears, chin.
TavroRTC::FDModule::FaceRect withMargin(const TavroRTC::FDModule::FaceRect& face);

/// Hides what is behind the rectangle with its margin, clipped to the picture. The size is in
/// pixels; the rectangle may lie anywhere.
void hideFace(std::span<const Component, planeCount> picture, int32_t width, int32_t height,
              const TavroRTC::FDModule::FaceRect& face, Hiding how);

}  // namespace tavro::host
