#include "host/app/annotation.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

// A green that stands out from skin on any background, in limited-range BT.601.
constexpr uint8_t lineColor[planeCount] = {173, 42, 26};

/// Half-open area of samples, 64 bits wide: rectangles may lie anywhere in 32 bits.
struct Area {
  int64_t left, top, right, bottom;
};

void fill(I420Frame& frame, const Area& area) {
  for (int32_t plane = 0; plane < planeCount; ++plane) {
    const int shift = plane == 0 ? 0 : 1;
    const int64_t left = std::clamp<int64_t>(area.left >> shift, 0, frame.planeWidth(plane));
    const int64_t right = std::clamp<int64_t>(area.right >> shift, left, frame.planeWidth(plane));
    const int64_t top = std::clamp<int64_t>(area.top >> shift, 0, frame.planeHeight(plane));
    const int64_t bottom = std::clamp<int64_t>(area.bottom >> shift, top, frame.planeHeight(plane));
    for (int64_t y = top; y < bottom; ++y)
      std::memset(frame.writablePlane(plane) + y * frame.planeStride(plane) + left,
                  lineColor[plane], static_cast<size_t>(right - left));
  }
}

/// Even corners and even thickness: the chroma of a line then covers just its luma.
void outline(I420Frame& frame, const FaceRect& face, int64_t thickness) {
  const auto even = [](int64_t value) { return value & ~int64_t{1}; };
  const Area box = {even(face.left), even(face.top), even(int64_t{face.right} + 1),
                    even(int64_t{face.bottom} + 1)};
  fill(frame, {box.left, box.top, box.right, box.top + thickness});
  fill(frame, {box.left, box.bottom - thickness, box.right, box.bottom});
  fill(frame, {box.left, box.top, box.left + thickness, box.bottom});
  fill(frame, {box.right - thickness, box.top, box.right, box.bottom});
}

}  // namespace

std::optional<I420Frame> copyOf(const I420Frame& frame) {
  // The sinks hand the copy to swscale, which reads narrow rows in whole vectors.
  const auto padded = [&frame](int32_t plane) { return (frame.planeWidth(plane) + 63) / 64 * 64; };
  auto copy = I420Frame::allocate(frame.width(), frame.height(), padded(0), padded(1));
  if (!copy.has_value())
    return std::nullopt;
  for (int32_t plane = 0; plane < planeCount; ++plane)
    for (int32_t y = 0; y < frame.planeHeight(plane); ++y)
      std::memcpy(copy->writablePlane(plane) + ptrdiff_t{y} * copy->planeStride(plane),
                  frame.planeData(plane) + ptrdiff_t{y} * frame.planeStride(plane),
                  static_cast<size_t>(frame.planeWidth(plane)));
  return copy;
}

int64_t lineThickness(int32_t width, int32_t height) {
  // About 4 pixels in a 720-line picture.
  return 2 * std::max<int64_t>(1, std::min(width, height) / 320);
}

std::optional<I420Frame> withRectangles(const I420Frame& frame, std::span<const FaceRect> faces) {
  auto drawn = copyOf(frame);
  if (!drawn.has_value())
    return std::nullopt;
  const int64_t thickness = lineThickness(frame.width(), frame.height());
  for (const FaceRect& face : faces)
    outline(*drawn, face, thickness);
  return drawn;
}

bool hasExtension(const std::string& path, const std::string& extension) {
  const auto sameLetter = [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  };
  return path.size() > extension.size() &&
         std::equal(extension.rbegin(), extension.rend(), path.rbegin(), sameLetter);
}

std::unique_ptr<FrameSink> openSink(const std::string& path, const SinkFormat& format,
                                    std::string& error) {
  return hasExtension(path, ".png") ? openPictureSink(path, format, error)
                                    : openVideoSink(path, format, error);
}

}  // namespace tavro::host
