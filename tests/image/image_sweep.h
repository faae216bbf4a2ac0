#pragma once

// One operation on images as the sweep sees it: planes in, planes out, and what must come of them.

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "image/image_desc.h"
#include "tests/image/reference.h"

namespace tavro::test {

struct Size {
  int32_t width, height;

  Size half() const { return {(width + 1) / 2, (height + 1) / 2}; }
};

using Bytes = std::vector<uint8_t>;
using Planes = std::deque<TestPlane>;

struct ImageCase {
  std::vector<Size> src, dst;  ///< of the planes, in bytes
  /// The operation; 0 if it worked. The planes may have gaps between their rows.
  std::function<int32_t(Planes& src, Planes& dst)> run;
  /// The samples of each plane, by the block form or the plain one.
  std::function<std::vector<Bytes>(const Planes& src, bool plainOnly)> expected;
};

/// Runs it in memory that ends at a guard page and in memory that follows one, by the block form
/// and by the plain one, each time with content of its own.
testing::AssertionResult checkImage(const ImageCase& c, Random& random);

/// Each plane has a gap of its own between its rows, or none: an image may go as one row only if
/// none of its planes has one.
Planes makePlanes(const std::vector<Size>& sizes, Random& random, Guard guard = Guard::behind);

/// An image of that size that lies in the planes. Fields that need not be read hold junk.
TavroRTC::FDModule::ImageDesc describe(Planes& planes, Size size,
                                       TavroRTC::FDModule::ImageFormat format = {});

/// Whether nothing has been written into the planes since they were made.
bool isUntouched(const Planes& planes);

}  // namespace tavro::test
