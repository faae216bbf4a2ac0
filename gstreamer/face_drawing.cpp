#include "gstreamer/face_drawing.h"

#include <algorithm>
#include <cstdint>

namespace tavro::gstreamer {

namespace {

constexpr int componentCount = 3;
// A green that stands out from skin on any background, in limited-range BT.601.
constexpr uint8_t lineColor[componentCount] = {173, 42, 26};

/// Half-open area of luma samples, with even corners but for the picture's own border.
struct Area {
  int32_t left, top, right, bottom;
};

/// A component is a plane, or every second sample of one.
void fill(GstVideoFrame& picture, int component, const Area& area) {
  const int32_t half = component == 0 ? 0 : 1;
  const ptrdiff_t step = GST_VIDEO_FRAME_COMP_PSTRIDE(&picture, component);
  const ptrdiff_t stride = GST_VIDEO_FRAME_COMP_STRIDE(&picture, component);
  const int32_t right =
      std::min((area.right + half) >> half, GST_VIDEO_FRAME_COMP_WIDTH(&picture, component));
  const int32_t bottom =
      std::min((area.bottom + half) >> half, GST_VIDEO_FRAME_COMP_HEIGHT(&picture, component));
  auto* samples = static_cast<uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&picture, component));
  for (int32_t y = area.top >> half; y < bottom; ++y)
    for (int32_t x = area.left >> half; x < right; ++x)
      samples[y * stride + x * step] = lineColor[component];
}

/// Even corners and even thickness: the chroma of a line then covers just its luma.
void outline(GstVideoFrame& picture, const FaceRect& face, int32_t thickness) {
  const auto even = [](int32_t value) { return value & ~1; };
  const Area box = {even(face.left), even(face.top),
                    std::min(even(face.right + 1), GST_VIDEO_FRAME_WIDTH(&picture)),
                    std::min(even(face.bottom + 1), GST_VIDEO_FRAME_HEIGHT(&picture))};
  const int32_t innerLeft = std::min(box.left + thickness, box.right);
  const int32_t innerTop = std::min(box.top + thickness, box.bottom);
  const int32_t innerRight = std::max(even(box.right - thickness), box.left);
  const int32_t innerBottom = std::max(even(box.bottom - thickness), box.top);
  const Area lines[] = {{box.left, box.top, box.right, innerTop},
                        {box.left, innerBottom, box.right, box.bottom},
                        {box.left, box.top, innerLeft, box.bottom},
                        {innerRight, box.top, box.right, box.bottom}};
  for (int component = 0; component < componentCount; ++component)
    for (const Area& line : lines)
      fill(picture, component, line);
}

}  // namespace

void drawFaces(GstVideoFrame& picture, std::span<const Face> faces) {
  const int32_t size = std::min(GST_VIDEO_FRAME_WIDTH(&picture), GST_VIDEO_FRAME_HEIGHT(&picture));
  // About 4 pixels in a 720-line picture.
  const int32_t thickness = 2 * std::max(1, size / 320);
  for (const Face& face : faces)
    outline(picture, face.rect, thickness);
}

}  // namespace tavro::gstreamer
