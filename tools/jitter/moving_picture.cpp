#include "tools/jitter/moving_picture.h"

#include <cmath>
#include <numbers>

namespace tavro::jitter {

namespace {

int32_t mirrored(int32_t position, int32_t size) {
  const int32_t period = 2 * size;
  const int32_t place = (position % period + period) % period;
  return place < size ? place : period - 1 - place;
}

}  // namespace

/// Even numbers: the chroma then moves by whole samples too, and no resampling of this program's
/// own comes between the photograph and the detector.
MovingPicture::Shift MovingPicture::shift(size_t index) const {
  const double angle = std::numbers::pi * time(index);
  const double size = sizeOf(face_);
  const auto even = [](double value) { return 2 * static_cast<int32_t>(std::lround(value / 2.0)); };
  return {even(reach_ * size * std::sin(angle)), even(reach_ * size * 0.3 * std::sin(2.0 * angle))};
}

FaceRect MovingPicture::face(size_t index) const {
  const Shift by = shift(index);
  return {face_.left + by.x, face_.top + by.y, face_.right + by.x, face_.bottom + by.y};
}

std::optional<host::I420Frame> MovingPicture::frame(size_t index) const {
  const Shift by = shift(index);
  auto frame = host::I420Frame::allocate(picture_.width(), picture_.height());
  for (int32_t plane = 0; frame.has_value() && plane < host::planeCount; ++plane) {
    const int32_t part = plane == 0 ? 1 : 2;
    const int32_t width = frame->planeWidth(plane);
    const int32_t height = frame->planeHeight(plane);
    for (int32_t y = 0; y < height; ++y) {
      const uint8_t* row =
          picture_.planeData(plane) +
          ptrdiff_t{mirrored(y - by.y / part, height)} * picture_.planeStride(plane);
      uint8_t* target = frame->writablePlane(plane) + ptrdiff_t{y} * frame->planeStride(plane);
      for (int32_t x = 0; x < width; ++x)
        target[x] = row[mirrored(x - by.x / part, width)];
    }
  }
  return frame;
}

}  // namespace tavro::jitter
