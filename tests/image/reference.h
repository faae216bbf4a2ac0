#pragma once

// Planes in guarded memory, and what the scalers and converters must make of them: every sample
// computed by itself from the formulas, with no rows, rings or blocks.

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "tests/support/guarded_buffer.h"
#include "tests/support/sweep.h"

namespace tavro::test {

/// A plane whose last sample touches a guard page, or whose first one follows one. Between its rows
/// lie stride - width bytes that belong to nobody.
struct TestPlane {
  TestPlane(int32_t planeWidth, int32_t planeHeight, int32_t gap = 0, Guard guard = Guard::behind);

  void fill(Content content, Random& random) {
    tavro::test::fill({bytes.data(), bytes.size()}, content, random);
  }
  uint8_t at(int32_t x, int32_t y) const;

  int32_t width, height, stride;
  GuardedBuffer<uint8_t> bytes;
};

/// A part of an image of one byte a pixel, or of several: the plane that holds them counts its
/// width in bytes. Pixels beyond the part are those of its edge, as far as the plane has them.
struct ImagePart {
  explicit ImagePart(const TestPlane& source, int32_t pixelBytes = 1)
      : ImagePart(source, pixelBytes, 0, 0, source.width / pixelBytes, source.height) {}
  ImagePart(const TestPlane& source, int32_t pixelBytes, int32_t x, int32_t y, int32_t partWidth,
            int32_t partHeight)
      : plane(source),
        bytesPerPixel(pixelBytes),
        left(x),
        top(y),
        width(partWidth),
        height(partHeight) {}

  int32_t at(int64_t x, int64_t y, int32_t byte = 0) const;

  const TestPlane& plane;
  int32_t bytesPerPixel;
  int32_t left, top, width, height;
};

/// The part at another size, sample by sample; filter by code.
std::vector<uint8_t> scaled(const ImagePart& src, int32_t width, int32_t height, int32_t filter,
                            bool plainRowsOnly = false);

struct Bgr {
  uint8_t b, g, r;
};
Bgr bgrOf(int32_t y, int32_t u, int32_t v);

struct Rgb {
  int32_t r, g, b;
};
struct Yuv {
  uint8_t y, u, v;
};
/// Of a colour, by the plain form or by that of the blocks.
Yuv yuvOf(const Rgb& colour, bool isPlain);

/// Whether `dst` holds the samples, and the bytes around and between its rows are as they were.
testing::AssertionResult holds(const TestPlane& dst, const std::vector<uint8_t>& expected);

}  // namespace tavro::test
