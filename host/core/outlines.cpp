#include "host/core/outlines.h"

#include <algorithm>
#include <array>

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

// A green that stands out from skin on any background, in limited-range BT.601.
constexpr uint8_t lineColor[planeCount] = {173, 42, 26};

/// Half-open area of luma samples, 64 bits wide: rectangles may lie anywhere in 32 bits.
struct Area {
  int64_t left, top, right, bottom;
};

void fill(const Component& component, int32_t plane, int32_t width, int32_t height,
          const Area& area) {
  const int half = plane == 0 ? 0 : 1;
  const int64_t columns = planeExtent(plane, width);
  const int64_t rows = planeExtent(plane, height);
  const int64_t left = std::clamp<int64_t>(area.left >> half, 0, columns);
  const int64_t right = std::clamp<int64_t>((area.right + half) >> half, left, columns);
  const int64_t top = std::clamp<int64_t>(area.top >> half, 0, rows);
  const int64_t bottom = std::clamp<int64_t>((area.bottom + half) >> half, top, rows);
  for (int64_t y = top; y < bottom; ++y)
    for (int64_t x = left; x < right; ++x)
      component.samples[y * component.stride + x * component.step] = lineColor[plane];
}

/// The lines of a box. With even corners and an even thickness, the chroma of a line covers just
/// its luma; only the border of a picture of odd size stands within a pair of samples.
std::array<Area, 4> linesOf(const FaceRect& face, int32_t width, int32_t height) {
  const auto even = [](int64_t value) { return value & ~int64_t{1}; };
  const auto end = [even](int64_t corner, int64_t border) {
    return corner == border ? border : even(corner + 1);
  };
  const int64_t thickness = lineThickness(width, height);
  const Area box = {even(face.left), even(face.top), end(face.right, width),
                    end(face.bottom, height)};
  const int64_t innerLeft = std::min(box.left + thickness, box.right);
  const int64_t innerTop = std::min(box.top + thickness, box.bottom);
  const int64_t innerRight = std::max(even(box.right - thickness), box.left);
  const int64_t innerBottom = std::max(even(box.bottom - thickness), box.top);
  return {{{box.left, box.top, box.right, innerTop},
           {box.left, innerBottom, box.right, box.bottom},
           {box.left, box.top, innerLeft, box.bottom},
           {innerRight, box.top, box.right, box.bottom}}};
}

}  // namespace

int64_t lineThickness(int32_t width, int32_t height) {
  // About 4 pixels in a 720-line picture.
  return 2 * std::max<int64_t>(1, std::min(width, height) / 320);
}

void drawOutlines(std::span<const Component, planeCount> picture, int32_t width, int32_t height,
                  std::span<const FaceRect> faces) {
  for (const FaceRect& face : faces)
    for (const Area& line : linesOf(face, width, height))
      for (int32_t plane = 0; plane < planeCount; ++plane)
        fill(picture[static_cast<size_t>(plane)], plane, width, height, line);
}

}  // namespace tavro::host
