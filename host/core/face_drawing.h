#pragma once

// Draws the outlines of faces into a picture in 4:2:0 sampling, or hides the faces in it, where it
// lies, planar or with its chroma interleaved.

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

/// What is left of a face. Nothing brings it back: of its samples, no more than 36 means are used.
enum class Hiding : int32_t {
  pixelate,  ///< the means of blocks that grow with the face, as flat blocks
  blur,      ///< the same means, one running into the next
  solid,     ///< black
};

enum class HidingShape : int32_t {
  rectangle,
  ellipse,  ///< the smallest one around the rectangle
};

inline constexpr int32_t largestMargin = 1000;  ///< more would cover any picture

struct HidingStyle {
  Hiding how = Hiding::pixelate;
  HidingShape shape = HidingShape::rectangle;
  int32_t margin = 25;  ///< on each side, in percent of the face's size: 0 to largestMargin
};

/// The rectangle with a margin for what else belongs to a face: hair, ears, chin.
TavroRTC::FDModule::FaceRect withMargin(const TavroRTC::FDModule::FaceRect& face,
                                        int32_t percent = HidingStyle().margin);

/// Hides what is behind the rectangle with its margin, clipped to the picture. The size is in
/// pixels; the rectangle may lie anywhere.
void hideFace(std::span<const Component, planeCount> picture, int32_t width, int32_t height,
              const TavroRTC::FDModule::FaceRect& face, const HidingStyle& style);

}  // namespace tavro::host
