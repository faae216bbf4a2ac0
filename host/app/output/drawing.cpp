#include "host/app/output/drawing.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "host/core/face_drawing.h"

namespace tavro::host {

namespace {

using TavroRTC::FDModule::FaceRect;

std::array<Component, planeCount> componentsOf(I420Frame& frame) {
  std::array<Component, planeCount> components;
  for (int32_t plane = 0; plane < planeCount; ++plane)
    components[static_cast<size_t>(plane)] = {frame.writablePlane(plane), frame.planeStride(plane)};
  return components;
}

FaceRect corners(const Window& area) {
  const auto end = [](int32_t begin, int32_t size) {
    return static_cast<int32_t>(
        std::min<int64_t>(int64_t{begin} + size, std::numeric_limits<int32_t>::max()));
  };
  return {area.x, area.y, end(area.x, area.width), end(area.y, area.height)};
}

bool isInside(const FaceRect& inner, const FaceRect& outer) {
  return inner.left >= outer.left && inner.top >= outer.top && inner.right <= outer.right &&
         inner.bottom <= outer.bottom;
}

/// Copies the area's samples. Chroma that has a part outside of it stays as it is.
void restore(I420Frame& frame, const I420Frame& source, const FaceRect& area) {
  for (int32_t plane = 0; plane < planeCount; ++plane) {
    const auto part = [plane](int32_t corner, int32_t frameSide, int32_t side, bool isEnd) {
      if (corner >= frameSide)
        return side;
      return plane == 0 ? corner : (isEnd ? corner : corner + 1) / 2;
    };
    const int32_t columns = frame.planeWidth(plane);
    const int32_t rows = frame.planeHeight(plane);
    const int32_t left = part(area.left, frame.width(), columns, false);
    const int32_t right = part(area.right, frame.width(), columns, true);
    const int32_t end = part(area.bottom, frame.height(), rows, true);
    for (int32_t y = part(area.top, frame.height(), rows, false); y < end && left < right; ++y)
      std::memcpy(frame.writablePlane(plane) + ptrdiff_t{y} * frame.planeStride(plane) + left,
                  source.planeData(plane) + ptrdiff_t{y} * source.planeStride(plane) + left,
                  static_cast<size_t>(right - left));
  }
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

std::optional<I420Frame> withRectangles(const I420Frame& frame, std::span<const FaceRect> faces) {
  auto drawn = copyOf(frame);
  if (!drawn.has_value())
    return std::nullopt;
  drawOutlines(componentsOf(*drawn), frame.width(), frame.height(), faces);
  return drawn;
}

void hideFace(I420Frame& frame, const FaceRect& face, const HidingStyle& style) {
  hideFace(componentsOf(frame), frame.width(), frame.height(), face, style);
}

void FaceHiding::add(double time, std::span<const FaceRect> faces,
                     std::span<const int64_t> numbers) {
  std::vector<FaceRect> hiddenFaces;
  std::vector<int64_t> hiddenNumbers;
  for (size_t i = 0; i < faces.size(); ++i)
    if (std::ranges::find(options_.keepFaces, numbers[i]) == options_.keepFaces.end()) {
      hiddenFaces.push_back(faces[i]);
      hiddenNumbers.push_back(numbers[i]);
    } else {
      std::erase(missing_, numbers[i]);
    }
  cover_.add(time, hiddenFaces, hiddenNumbers);
}

std::optional<I420Frame> FaceHiding::shown(const I420Frame& picture, double time, bool isRefused) {
  auto copy = copyOf(picture);
  const std::vector<FaceRect> faces = cover_.at(shownFrames_);
  cover_.forgetBefore(shownFrames_++);
  if (!copy.has_value() || !options_.when.contains(time))
    return copy;

  const auto areasNow = [time](const std::vector<TimedArea>& areas) {
    std::vector<FaceRect> now;
    for (const TimedArea& area : areas)
      if (area.when.contains(time))
        now.push_back(corners(area.area));
    return now;
  };
  const std::vector<FaceRect> kept = areasNow(options_.keep);
  for (const FaceRect& face : faces)
    // Of a face that may be seen, the margin may too.
    if (std::ranges::none_of(kept, [&](const FaceRect& area) { return isInside(face, area); }))
      hideFace(*copy, face, options_.style);
  for (const FaceRect& area : kept)
    restore(*copy, picture, area);
  std::vector<FaceRect> hidden = areasNow(options_.hide);
  if (isRefused)
    hidden.push_back({0, 0, picture.width(), picture.height()});
  for (const FaceRect& area : hidden)
    hideFace(*copy, area, {.how = options_.style.how, .margin = 0});
  return copy;
}

}  // namespace tavro::host
