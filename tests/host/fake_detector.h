#pragma once

// What the fake detector answers for a frame, so that a test can tell from the rectangles which
// samples have reached the module. The first three rectangles stand for the planes Y, U, V, the
// fourth holds the mean luma of the four quarters of the picture.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "modules/face_detection/host_interface.h"

namespace tavro::test {

/// FNV-1a over the samples of a plane, row by row without the gaps between rows.
inline int32_t planeChecksum(const uint8_t* samples, int32_t stride, int32_t width,
                             int32_t height) {
  uint32_t hash = 2166136261U;
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x)
      hash = (hash ^ samples[int64_t{y} * stride + x]) * 16777619U;
  return static_cast<int32_t>(hash >> 1);
}

inline int32_t meanOf(const uint8_t* samples, int32_t stride, int32_t firstX, int32_t endX,
                      int32_t firstY, int32_t endY) {
  int64_t sum = 0;
  for (int32_t y = firstY; y < endY; ++y)
    for (int32_t x = firstX; x < endX; ++x)
      sum += samples[int64_t{y} * stride + x];
  const int64_t count = int64_t{endX - firstX} * (endY - firstY);
  return count > 0 ? static_cast<int32_t>(sum / count) : 0;
}

/// left: checksum, top: plane, right and bottom: the plane's width and height.
inline std::vector<TavroRTC::FDModule::FaceRect> fakeFaces(
    const TavroRTC::FDModule::HostFrame& frame) {
  std::vector<TavroRTC::FDModule::FaceRect> faces;
  const int32_t width = frame.width();
  const int32_t height = frame.height();
  for (int32_t plane = 0; plane < 3; ++plane) {
    const int32_t planeWidth = plane == 0 ? width : (width + 1) / 2;
    const int32_t planeHeight = plane == 0 ? height : (height + 1) / 2;
    faces.push_back(
        {planeChecksum(frame.planeData(plane), frame.planeStride(plane), planeWidth, planeHeight),
         plane, planeWidth, planeHeight});
  }
  const auto quarter = [&](int32_t column, int32_t row) {
    return meanOf(frame.planeData(0), frame.planeStride(0), column * (width / 2),
                  (column + 1) * (width / 2), row * (height / 2), (row + 1) * (height / 2));
  };
  faces.push_back({quarter(0, 0), quarter(1, 0), quarter(0, 1), quarter(1, 1)});
  return faces;
}

/// The boxes around the samples of each of two ranges of bright luma, where there are any: a
/// detector whose faces a test can paint.
inline constexpr uint8_t paintedLuma[] = {200, 230};
inline std::vector<TavroRTC::FDModule::FaceRect> paintedFaces(
    const TavroRTC::FDModule::HostFrame& frame) {
  std::vector<TavroRTC::FDModule::FaceRect> faces;
  for (const uint8_t luma : paintedLuma) {
    TavroRTC::FDModule::FaceRect box{frame.width(), frame.height(), 0, 0};
    for (int32_t y = 0; y < frame.height(); ++y)
      for (int32_t x = 0; x < frame.width(); ++x)
        if (std::abs(frame.planeData(0)[int64_t{y} * frame.planeStride(0) + x] - luma) < 10)
          box = {std::min(box.left, x), std::min(box.top, y), std::max(box.right, x + 1),
                 std::max(box.bottom, y + 1)};
    if (box.right > 0)
      faces.push_back(box);
  }
  return faces;
}

}  // namespace tavro::test
