#include "host/app/output/drawing.h"

#include <array>
#include <cstring>

#include "host/core/face_drawing.h"

namespace tavro::host {

namespace {

std::array<Component, planeCount> componentsOf(I420Frame& frame) {
  std::array<Component, planeCount> components;
  for (int32_t plane = 0; plane < planeCount; ++plane)
    components[static_cast<size_t>(plane)] = {frame.writablePlane(plane), frame.planeStride(plane)};
  return components;
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
  drawOutlines(componentsOf(*drawn), frame.width(), frame.height(), faces);
  return drawn;
}

void hideFace(I420Frame& frame, const TavroRTC::FDModule::FaceRect& face, Hiding how) {
  hideFace(componentsOf(frame), frame.width(), frame.height(), face, how);
}

}  // namespace tavro::host
