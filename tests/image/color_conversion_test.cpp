// Packed pixels to luma and 4:2:0 and back, packed to packed, and 4:2:0 in three and two planes:
// every operation at many sizes on guarded memory, byte for byte against the formulas.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "image/image_dispatch.h"
#include "image/row_kernels.h"
#include "tests/image/reference.h"
#include "tests/support/processor.h"
#include "tests/support/random.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

// What a plane of an image holds: its size in bytes for an image of a size.
using PlaneShape = std::function<Size(Size)>;
PlaneShape packed(int32_t bytesPerPixel) {
  return [bytesPerPixel](Size size) { return Size{size.width * bytesPerPixel, size.height}; };
}
const PlaneShape full = [](Size size) { return size; };
const PlaneShape half = [](Size size) { return size.half(); };
const PlaneShape pairs = [](Size size) { return Size{2 * size.half().width, size.half().height}; };

// Where the colours stand: "rgb", "bgra" and so on; any other letter is no colour.
struct Layout {
  std::string letters;

  int32_t size() const { return static_cast<int32_t>(letters.size()); }
  Rgb at(const TestPlane& plane, int32_t x, int32_t y) const {
    const auto byte = [&](char letter) {
      return int32_t{plane.at(x * size() + static_cast<int32_t>(letters.find(letter)), y)};
    };
    return {byte('r'), byte('g'), byte('b')};
  }
};

// The mean of a colour over two by two pixels; the last column of an odd width stands alone.
int32_t meanOf(int32_t topLeft, int32_t topRight, int32_t bottomLeft, int32_t bottomRight,
               bool isPlain) {
  if (isPlain)
    return (topLeft + topRight + bottomLeft + bottomRight) / 4;
  const int32_t left = (topLeft + bottomLeft + 1) / 2;
  const int32_t right = (topRight + bottomRight + 1) / 2;
  return (left + right + 1) / 2;
}

// The planes that an operation must produce.
using Expected = std::vector<Bytes>;
using Reference = std::function<Expected(const Planes& src, Size size, bool plainOnly)>;

Bytes lumaPlane(const Layout& layout, const TestPlane& src, Size size, bool isPlain) {
  Bytes luma;
  for (int32_t y = 0; y < size.height; ++y)
    for (int32_t x = 0; x < size.width; ++x)
      luma.push_back(yuvOf(layout.at(src, x, y), isPlain).y);
  return luma;
}

Reference luma(const std::string& letters, bool isAlwaysPlain = false) {
  return [=](const Planes& src, Size size, bool plainOnly) {
    return Expected{lumaPlane({letters}, src[0], size, plainOnly || isAlwaysPlain)};
  };
}

Reference i420(const std::string& letters) {
  return [=](const Planes& src, Size size, bool isPlain) {
    const Layout layout{letters};
    Expected planes{lumaPlane(layout, src[0], size, isPlain), {}, {}};
    for (int32_t y = 0; y < size.height; y += 2)
      for (int32_t x = 0; x < size.width; x += 2) {
        const int32_t right = std::min(x + 1, size.width - 1);
        const int32_t bottom = std::min(y + 1, size.height - 1);
        const Rgb p[] = {layout.at(src[0], x, y), layout.at(src[0], right, y),
                         layout.at(src[0], x, bottom), layout.at(src[0], right, bottom)};
        const Rgb mean = {meanOf(p[0].r, p[1].r, p[2].r, p[3].r, isPlain),
                          meanOf(p[0].g, p[1].g, p[2].g, p[3].g, isPlain),
                          meanOf(p[0].b, p[1].b, p[2].b, p[3].b, isPlain)};
        const Yuv chroma = yuvOf(mean, isPlain);
        planes[1].push_back(chroma.u);
        planes[2].push_back(chroma.v);
      }
    return planes;
  };
}

// Each output byte of a pixel is the input byte of that number; -1 is 255.
Reference reordered(int32_t srcBytes, const std::vector<int32_t>& from) {
  return [=](const Planes& src, Size size, bool) {
    Bytes bytes;
    for (int32_t y = 0; y < size.height; ++y)
      for (int32_t x = 0; x < size.width; ++x)
        for (const int32_t byte : from)
          bytes.push_back(byte < 0 ? uint8_t{255} : src[0].at(x * srcBytes + byte, y));
    return Expected{bytes};
  };
}

Bytes samplesOf(const TestPlane& plane, int32_t first = 0, int32_t step = 1) {
  Bytes samples;
  for (int32_t y = 0; y < plane.height; ++y)
    for (int32_t x = first; x < plane.width; x += step)
      samples.push_back(plane.at(x, y));
  return samples;
}

Reference merged(size_t first, size_t second) {
  return [=](const Planes& src, Size, bool) {
    Expected planes{samplesOf(src[0]), {}};
    const Bytes a = samplesOf(src[first]);
    const Bytes b = samplesOf(src[second]);
    for (size_t i = 0; i < a.size(); ++i)
      planes[1].insert(planes[1].end(), {a[i], b[i]});
    return planes;
  };
}

// The bytes of a pixel: 0, 1, 2 for B, G, R and 3 for the opaque byte.
Reference packedFromYuv(const std::vector<size_t>& bytes) {
  return [=](const Planes& src, Size size, bool) {
    Bytes pixels;
    for (int32_t y = 0; y < size.height; ++y)
      for (int32_t x = 0; x < size.width; ++x) {
        const Bgr colour = bgrOf(src[0].at(x, y), src[1].at(x / 2, y / 2), src[2].at(x / 2, y / 2));
        const uint8_t values[] = {colour.b, colour.g, colour.r, 255};
        for (const size_t byte : bytes)
          pixels.push_back(values[byte]);
      }
    return Expected{pixels};
  };
}

Reference split(int32_t firstOfU) {
  return [=](const Planes& src, Size, bool) {
    return Expected{samplesOf(src[0]), samplesOf(src[1], firstOfU, 2),
                    samplesOf(src[1], 1 - firstOfU, 2)};
  };
}

struct Operation {
  ColorOp op;
  std::vector<PlaneShape> src;
  std::vector<PlaneShape> dst;
  Reference expected;

  // Its bytes aren't all initialised.
  friend void PrintTo(const Operation& operation, std::ostream* out) {
    *out << "operation " << static_cast<int32_t>(operation.op);
  }
};

const std::vector<PlaneShape> threePlanes = {full, half, half};
const std::vector<PlaneShape> twoPlanes = {full, pairs};

const Operation operations[] = {
    {ColorOp::Packed24ToPacked32, {packed(3)}, {packed(4)}, reordered(3, {0, 1, 2, -1})},
    {ColorOp::Packed32ToPacked24, {packed(4)}, {packed(3)}, reordered(4, {0, 1, 2})},
    {ColorOp::Packed24ToPacked32Swapped, {packed(3)}, {packed(4)}, reordered(3, {2, 1, 0, -1})},
    {ColorOp::Bgr24ToLuma, {packed(3)}, {full}, luma("bgr")},
    {ColorOp::Rgb24ToLuma, {packed(3)}, {full}, luma("rgb", true)},
    {ColorOp::Bgra32ToLuma, {packed(4)}, {full}, luma("bgra")},
    {ColorOp::Rgba32ToLuma, {packed(4)}, {full}, luma("rgba")},
    {ColorOp::Rgb24ToI420, {packed(3)}, threePlanes, i420("rgb")},
    {ColorOp::Bgr24ToI420, {packed(3)}, threePlanes, i420("bgr")},
    {ColorOp::Rgba32ToI420, {packed(4)}, threePlanes, i420("rgba")},
    {ColorOp::Bgra32ToI420, {packed(4)}, threePlanes, i420("bgra")},
    {ColorOp::Argb32ToI420, {packed(4)}, threePlanes, i420("argb")},
    {ColorOp::Abgr32ToI420, {packed(4)}, threePlanes, i420("abgr")},
    {ColorOp::I420ToNv21, threePlanes, twoPlanes, merged(2, 1)},
    {ColorOp::I420ToNv12, threePlanes, twoPlanes, merged(1, 2)},
    {ColorOp::Nv12ToI420, twoPlanes, threePlanes, split(0)},
    {ColorOp::Nv21ToI420, twoPlanes, threePlanes, split(1)},
    {ColorOp::I420ToBgr24, threePlanes, {packed(3)}, packedFromYuv({0, 1, 2})},
    {ColorOp::I420ToRgb24, threePlanes, {packed(3)}, packedFromYuv({2, 1, 0})},
    {ColorOp::I420ToBgra32, threePlanes, {packed(4)}, packedFromYuv({0, 1, 2, 3})},
    {ColorOp::I420ToRgba32, threePlanes, {packed(4)}, packedFromYuv({2, 1, 0, 3})},
    {ColorOp::I420ToAbgr32, threePlanes, {packed(4)}, packedFromYuv({3, 0, 1, 2})},
    {ColorOp::I420ToArgb32, threePlanes, {packed(4)}, packedFromYuv({3, 2, 1, 0})},
};

std::vector<Size> sizesOf(const std::vector<PlaneShape>& shapes, Size size) {
  std::vector<Size> sizes(shapes.size());
  std::ranges::transform(shapes, sizes.begin(),
                         [size](const PlaneShape& shape) { return shape(size); });
  return sizes;
}

ImageCase caseOf(const Operation& operation, Size size) {
  return {sizesOf(operation.src, size), sizesOf(operation.dst, size),
          [&operation, size](Planes& src, Planes& dst) {
            return convertImage(describe(src, size), describe(dst, size), operation.op);
          },
          [&operation, size](const Planes& src, bool plainOnly) {
            return operation.expected(src, size, plainOnly);
          }};
}

class ColorConversion : public testing::TestWithParam<Operation> {};

TEST_P(ColorConversion, MatchesTheFormulas) {
  EXPECT_TRUE(sweep(70 * 9, [](Random& random, int32_t i) {
    return checkImage(caseOf(GetParam(), {i / 9 + 1, i % 9 + 1}), random);
  }));
  EXPECT_TRUE(sweep(130, [](Random& random, int32_t i) {  // wider ones, of few rows
    return checkImage(caseOf(GetParam(), {i + 71, i % 3 + 1}), random);
  }));
}

TEST_P(ColorConversion, RefusesWithoutWriting) {
  const Operation& operation = GetParam();
  const Size size = {20, 6};
  TracedRandom random;
  Planes src = makePlanes(sizesOf(operation.src, size), random);
  Planes dst = makePlanes(sizesOf(operation.dst, size), random);
  const auto expectRefusal = [&](const std::function<void(ImageDesc&, ImageDesc&)>& spoil) {
    ImageDesc source = describe(src, size);
    ImageDesc target = describe(dst, size);
    spoil(source, target);
    EXPECT_EQ(convertImage(source, target, operation.op), -1);
  };
  for (size_t i = 0; i < src.size(); ++i)
    expectRefusal([i](ImageDesc& source, ImageDesc&) { source.planes[i] = nullptr; });
  for (size_t i = 0; i < dst.size(); ++i)
    expectRefusal([i](ImageDesc&, ImageDesc& target) { target.planes[i] = nullptr; });
  for (const int32_t bad : {0, -1, INT32_MIN}) {
    expectRefusal([bad](ImageDesc& source, ImageDesc&) { source.widths[0] = bad; });
    expectRefusal([bad](ImageDesc& source, ImageDesc&) { source.heights[0] = bad; });
  }
  EXPECT_TRUE(isUntouched(dst));
}

INSTANTIATE_TEST_SUITE_P(Operations, ColorConversion, testing::ValuesIn(operations),
                         [](const testing::TestParamInfo<Operation>& instance) {
                           return std::to_string(static_cast<int32_t>(instance.param.op));
                         });

// The sweeps leave out what can't run here; this says so.
TEST(WidestForms, runWhereThereIsAvx2) {
  if (!cpuInfo().runsAvx2())
    GTEST_SKIP() << "without AVX2 the sweeps run no form of 256 bits";
  const auto yuv = [] { return chooseYuvRow(256, PackMode::threeBytes); };
  const auto packed = [] { return choosePackedRow(256, PackedOp::dropLast); };
  YuvKernel* const widestYuv = yuv();
  PackedKernel* const widestPacked = packed();
  const Processor processor(withoutAvx2());
  EXPECT_NE(yuv(), widestYuv);
  EXPECT_NE(packed(), widestPacked);
}

// All 2^24 colours, by both forms.
TEST(YuvToPacked, EveryColourByBothForms) {
  uint8_t y[256], u[128], v[128], expected[768], actual[768];
  for (int32_t i = 0; i < 256; ++i)
    y[i] = static_cast<uint8_t>(i);
  for (int32_t chroma = 0; chroma < 65536; ++chroma) {
    std::memset(u, chroma & 255, sizeof(u));
    std::memset(v, chroma >> 8, sizeof(v));
    for (int32_t i = 0; i < 256; ++i) {
      const Bgr colour = bgrOf(i, chroma & 255, chroma >> 8);
      std::memcpy(expected + ptrdiff_t{3} * i, &colour, 3);
    }
    for (const bool plainOnly : {false, true}) {
      setPlainRowsOnly(plainOnly ? 1 : 0);
      chooseYuvRow(256, PackMode::threeBytes)(y, u, v, actual, YuvTableBgr, 256);
      setPlainRowsOnly(0);
      ASSERT_EQ(std::memcmp(actual, expected, sizeof(actual)), 0)
          << "u " << (chroma & 255) << " v " << (chroma >> 8) << " plain " << plainOnly;
    }
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
