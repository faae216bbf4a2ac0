#include "host/app/output/drawing.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "host/core/outlines.h"

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

constexpr int64_t blocksPerSide = 6;

int32_t saturated(int64_t value) {
  return static_cast<int32_t>(std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(),
                                                  std::numeric_limits<int32_t>::max()));
}

/// Sets a block of a plane to its mean.
void flatten(uint8_t* samples, int64_t stride, int64_t width, int64_t height) {
  int64_t sum = 0;
  for (int64_t y = 0; y < height; ++y)
    for (int64_t x = 0; x < width; ++x)
      sum += samples[y * stride + x];
  const int64_t count = width * height;
  for (int64_t y = 0; y < height; ++y)
    std::memset(samples + y * stride, static_cast<int>((sum + count / 2) / count),
                static_cast<size_t>(width));
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

std::optional<I420Frame> withRectangles(const I420Frame& frame,
                                        std::span<const TavroRTC::FDModule::FaceRect> faces) {
  auto drawn = copyOf(frame);
  if (!drawn.has_value())
    return std::nullopt;
  Component components[planeCount];
  for (int32_t plane = 0; plane < planeCount; ++plane)
    components[plane] = {drawn->writablePlane(plane), drawn->planeStride(plane)};
  drawOutlines(components, frame.width(), frame.height(), faces);
  return drawn;
}

FaceRect withMargin(const FaceRect& face) {
  const int64_t x = (int64_t{face.right} - face.left) / 4;
  const int64_t y = (int64_t{face.bottom} - face.top) / 4;
  return {saturated(face.left - x), saturated(face.top - y), saturated(face.right + x),
          saturated(face.bottom + y)};
}

void pixelate(I420Frame& frame, const FaceRect& face) {
  const FaceRect whole = withMargin(face);
  for (int32_t plane = 0; plane < planeCount; ++plane) {
    const int shift = plane == 0 ? 0 : 1;
    // Rounded outwards: no chroma is left where its luma is hidden.
    const int64_t left = std::clamp<int64_t>(whole.left >> shift, 0, frame.planeWidth(plane));
    const int64_t top = std::clamp<int64_t>(whole.top >> shift, 0, frame.planeHeight(plane));
    const int64_t right =
        std::clamp<int64_t>((int64_t{whole.right} + shift) >> shift, left, frame.planeWidth(plane));
    const int64_t bottom = std::clamp<int64_t>((int64_t{whole.bottom} + shift) >> shift, top,
                                               frame.planeHeight(plane));
    const int64_t width = right - left;
    const int64_t height = bottom - top;
    const int64_t stride = frame.planeStride(plane);
    for (int64_t row = 0; row < blocksPerSide; ++row)
      for (int64_t column = 0; column < blocksPerSide; ++column) {
        const int64_t x = left + column * width / blocksPerSide;
        const int64_t y = top + row * height / blocksPerSide;
        const int64_t endX = left + (column + 1) * width / blocksPerSide;
        const int64_t endY = top + (row + 1) * height / blocksPerSide;
        if (x < endX && y < endY)
          flatten(frame.writablePlane(plane) + y * stride + x, stride, endX - x, endY - y);
      }
  }
}

}  // namespace tavro::host
