#pragma once

// Planes in guarded memory, and what the scalers and converters must make of them: every sample
// computed on its own from the formulas, with no rows, rings or blocks. Then the sweep: an
// operation as planes in, planes out, and what must come of them.

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "engine/cpu_info.h"
#include "image/image_desc.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/sweep.h"

namespace tavro::test {

using Bytes = std::vector<uint8_t>;

// --- Planes and formulas ---

/// A plane whose last byte touches a guard page, or whose first one follows one. Between its rows
/// lie `gap` bytes that belong to nobody. If it is upside down, its last row comes first in memory.
struct TestPlane {
  TestPlane(int32_t planeWidth, int32_t planeHeight, int32_t gap = 0, Guard guard = Guard::behind,
            bool isUpsideDown = false);

  void fill(Content content, Random& random) {
    tavro::test::fill({bytes.data(), bytes.size()}, content, random);
  }
  uint8_t at(int32_t x, int32_t y) const;
  uint8_t* firstRow() { return bytes.data() + start; }
  const uint8_t* firstRow() const { return bytes.data() + start; }

  int32_t width, height, stride;
  ptrdiff_t start;  ///< of its first row in the bytes
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
Bytes scaled(const ImagePart& src, int32_t width, int32_t height, int32_t filter,
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
testing::AssertionResult holds(const TestPlane& dst, const Bytes& expected);

// --- The sweep ---

struct Size {
  int32_t width, height;

  Size half() const { return {(width + 1) / 2, (height + 1) / 2}; }
};

using Planes = std::deque<TestPlane>;

struct ImageCase {
  std::vector<Size> src, dst;  ///< of the planes, in bytes
  /// The operation; 0 if it worked. The planes may have gaps between their rows.
  std::function<int32_t(Planes& src, Planes& dst)> run;
  /// The samples of each plane, by the block form or the plain one.
  std::function<std::vector<Bytes>(const Planes& src, bool plainOnly)> expected;
};

/// This processor, but without AVX2, which the widest forms need.
TavroRTC::FDModule::CpuInfo withoutAvx2();

/// Runs it in memory that ends at a guard page and in memory that follows one, by the widest
/// form, by the block form and by the plain one, each time with content of its own.
testing::AssertionResult checkImage(const ImageCase& c, Random& random);

/// Each plane has a gap of its own between its rows, or none: an image may go as one row only if
/// none of its planes has one. Some are upside down.
Planes makePlanes(const std::vector<Size>& sizes, Random& random, Guard guard = Guard::behind);

/// An image of that size that lies in the planes. Fields that need not be read hold junk.
TavroRTC::FDModule::ImageDesc describe(Planes& planes, Size size,
                                       TavroRTC::FDModule::ImageFormat format = {});

/// Whether nothing has been written into the planes since they were made.
bool isUntouched(const Planes& planes);

}  // namespace tavro::test
