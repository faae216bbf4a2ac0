#pragma once

// The portrait of tests/data at any size: the one picture with a face that tests give to the
// detector. Needs tavro_test_portrait.

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <utility>
#include <vector>

#include "host/core/i420_frame.h"

namespace tavro::test {

class Portrait {
 public:
  static constexpr int32_t width = 160;
  static constexpr int32_t height = 120;

  Portrait() {
    std::ifstream file(TAVRO_PORTRAIT_PATH, std::ios::binary);
    samples_.assign(std::istreambuf_iterator<char>(file), {});
    if (samples_.size() != size_t{width} * height * 3 / 2)
      std::abort();
  }

  /// The sample of a plane of `planeWidth` by `planeHeight` samples.
  uint8_t at(int32_t plane, int64_t x, int64_t y, int64_t planeWidth, int64_t planeHeight) const {
    const int64_t part = plane == 0 ? 1 : 2;
    const int64_t starts[] = {0, width * height, width * height * 5 / 4};
    const int64_t row = y * (height / part) / planeHeight;
    const int64_t column = x * (width / part) / planeWidth;
    return static_cast<uint8_t>(
        samples_[static_cast<size_t>(starts[plane] + row * (width / part) + column)]);
  }

  /// A frame of that size, without gaps; the picture is moved to the right by `shift` columns,
  /// which come in again on the left.
  host::I420Frame frame(int32_t frameWidth = width, int32_t frameHeight = height,
                        int32_t shift = 0) const {
    auto frame = host::I420Frame::allocate(frameWidth, frameHeight);
    if (!frame)
      std::abort();
    for (int32_t plane = 0; plane < host::planeCount; ++plane) {
      const int32_t columns = frame->planeWidth(plane);
      const int32_t rows = frame->planeHeight(plane);
      const int32_t left = (plane == 0 ? shift : shift / 2) % columns;
      uint8_t* target = frame->writablePlane(plane);
      for (int32_t y = 0; y < rows; ++y)
        for (int32_t x = 0; x < columns; ++x)
          *target++ = at(plane, (x + columns - left) % columns, y, columns, rows);
    }
    return std::move(*frame);
  }

 private:
  std::vector<char> samples_;
};

}  // namespace tavro::test
