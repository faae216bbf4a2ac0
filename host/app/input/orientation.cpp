#include "host/app/input/orientation.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <utility>

namespace tavro::host {

namespace {

// The rows and columns of a tile fit the first-level cache in both planes; a whole column doesn't.
constexpr int32_t tileSize = 32;

/// A plane read through any of the eight orientations: sample (x, y) of the upright plane.
struct TurnedPlane {
  const uint8_t* origin = nullptr;
  ptrdiff_t stepX = 0;
  ptrdiff_t stepY = 0;
};

TurnedPlane turned(const I420Frame& stored, int32_t plane, Orientation orientation) {
  const ptrdiff_t stride = stored.planeStride(plane);
  TurnedPlane view{.origin = stored.planeData(plane), .stepX = 1, .stepY = stride};
  ptrdiff_t lastX = stored.planeWidth(plane) - 1;
  ptrdiff_t lastY = stored.planeHeight(plane) - 1;
  if (orientation.transpose) {
    std::swap(view.stepX, view.stepY);
    std::swap(lastX, lastY);
  }
  if (orientation.flipX) {
    view.origin += lastX * view.stepX;
    view.stepX = -view.stepX;
  }
  if (orientation.flipY) {
    view.origin += lastY * view.stepY;
    view.stepY = -view.stepY;
  }
  return view;
}

void copyTile(const TurnedPlane& source, uint8_t* target, ptrdiff_t targetStride, int32_t firstX,
              int32_t endX, int32_t firstY, int32_t endY) {
  for (int32_t y = firstY; y < endY; ++y) {
    const uint8_t* row = source.origin + y * source.stepY;
    uint8_t* out = target + y * targetStride;
    for (int32_t x = firstX; x < endX; ++x)
      out[x] = row[x * source.stepX];
  }
}

}  // namespace

Orientation orientationOf(const int32_t* displayMatrix) {
  // x' = a x + c y, y' = b x + d y
  const int64_t a = displayMatrix[0];
  const int64_t b = displayMatrix[1];
  const int64_t c = displayMatrix[3];
  const int64_t d = displayMatrix[4];
  const auto isNothingBeside = [](int64_t small, int64_t large) {
    return std::abs(small) * 64 < std::abs(large);  // within a degree
  };
  if (isNothingBeside(b, a) && isNothingBeside(c, d))
    return {.transpose = false, .flipX = a < 0, .flipY = d < 0};
  if (isNothingBeside(a, b) && isNothingBeside(d, c))
    return {.transpose = true, .flipX = c < 0, .flipY = b < 0};
  return {};
}

std::optional<I420Frame> turnedUpright(const I420Frame& stored, Orientation orientation) {
  const bool transpose = orientation.transpose;
  auto upright = I420Frame::allocate(transpose ? stored.height() : stored.width(),
                                     transpose ? stored.width() : stored.height());
  if (!upright.has_value())
    return std::nullopt;
  for (int32_t plane = 0; plane < planeCount; ++plane) {
    const TurnedPlane source = turned(stored, plane, orientation);
    const int32_t width = upright->planeWidth(plane);
    const int32_t height = upright->planeHeight(plane);
    for (int32_t y = 0; y < height; y += tileSize)
      for (int32_t x = 0; x < width; x += tileSize)
        copyTile(source, upright->writablePlane(plane), upright->planeStride(plane), x,
                 std::min(x + tileSize, width), y, std::min(y + tileSize, height));
  }
  return upright;
}

}  // namespace tavro::host
