// Packed pixels to luma and 4:2:0, packed to packed, and 4:2:0 in three and two planes: every
// operation at many sizes on guarded memory, byte for byte against the formulas.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "image/color_row_kernels.h"
#include "image/image_dispatch.h"
#include "image/row_kernels.h"
#include "tests/image/reference.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::test::Content;
using tavro::test::Guard;
using tavro::test::GuardedBuffer;
using tavro::test::holds;
using tavro::test::Random;
using tavro::test::TestPlane;

struct Size {
  int32_t width, height;

  Size half() const { return {(width + 1) / 2, (height + 1) / 2}; }
};

// What a plane of an image holds: its size in bytes for an image of a size.
using PlaneShape = std::function<Size(Size)>;
PlaneShape packed(int32_t bytesPerPixel) {
  return [bytesPerPixel](Size size) { return Size{size.width * bytesPerPixel, size.height}; };
}
const PlaneShape full = [](Size size) { return size; };
const PlaneShape half = [](Size size) { return size.half(); };
const PlaneShape pairs = [](Size size) { return Size{2 * size.half().width, size.half().height}; };

using Planes = std::deque<TestPlane>;
using Bytes = std::vector<uint8_t>;

struct Rgb {
  int32_t r, g, b;
};

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

uint8_t lumaOf(const Rgb& c, bool isPlain) {
  return static_cast<uint8_t>(isPlain ? (66 * c.r + 129 * c.g + 25 * c.b + 0x1080) / 256
                                      : (33 * c.r + 65 * c.g + 13 * c.b) / 128 + 16);
}

// Division that rounds down, also below 0.
int32_t floorDivide(int32_t a, int32_t b) {
  return (a - ((a % b + b) % b)) / b;
}

uint8_t chromaOf(int32_t sum, bool isPlain) {
  return static_cast<uint8_t>(isPlain ? floorDivide(sum + 0x8080, 256)
                                      : floorDivide(sum, 256) + 128);
}

// The mean of a colour over two by two pixels; the last column of an odd width stands alone.
int32_t meanOf(int32_t topLeft, int32_t topRight, int32_t bottomLeft, int32_t bottomRight,
               bool isPlain) {
  if (isPlain)
    return (topLeft + topRight + bottomLeft + bottomRight) / 4;
  const int32_t left = (topLeft + bottomLeft + 1) / 2;
  const int32_t right = (topRight + bottomRight + 1) / 2;
  return (left + right + 1) / 2;
}

// The planes that an operation is to give.
using Expected = std::vector<Bytes>;
using Reference = std::function<Expected(const Planes& src, Size size, bool plainOnly)>;

Bytes lumaPlane(const Layout& layout, const TestPlane& src, Size size, bool isPlain) {
  Bytes luma;
  for (int32_t y = 0; y < size.height; ++y)
    for (int32_t x = 0; x < size.width; ++x)
      luma.push_back(lumaOf(layout.at(src, x, y), isPlain));
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
        planes[1].push_back(chromaOf(112 * mean.b - 74 * mean.g - 38 * mean.r, isPlain));
        planes[2].push_back(chromaOf(112 * mean.r - 94 * mean.g - 18 * mean.b, isPlain));
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
};

// Each plane has a gap of its own between its rows, or none: an image may go as one row only if
// none of its planes has one.
Planes makePlanes(const std::vector<PlaneShape>& shapes, Size size, Random& random, Guard guard) {
  Planes planes;
  for (const PlaneShape& shape : shapes)
    planes.emplace_back(shape(size).width, shape(size).height,
                        random.chance(0.7) ? 0 : random.between(1, 5), guard);
  return planes;
}

ImageDesc describe(Planes& planes, Size size) {
  ImageDesc desc;
  for (size_t i = 0; i < planes.size(); ++i) {
    desc.planes[i] = planes[i].bytes.data();
    desc.strides[i] = planes[i].stride;
  }
  desc.widths[0] = size.width;
  desc.heights[0] = size.height;
  return desc;
}

class ColorConversion : public testing::TestWithParam<Operation> {};

TEST_P(ColorConversion, givesTheFormulasBytes) {
  const Operation& operation = GetParam();
  const uint64_t seed = tavro::test::baseSeed();
  SCOPED_TRACE(tavro::test::seedNote(seed));
  Random random(seed);
  for (int32_t width = 1; width <= 70; ++width)
    for (int32_t height = 1; height <= 9; ++height)
      for (const auto& [guard, plainOnly] : {std::pair{Guard::behind, false},
                                             {Guard::inFront, false},
                                             {Guard::behind, true},
                                             {Guard::inFront, true}}) {
        const Size size = {width, height};
        const Content content =
            random.chance(0.7) ? Content::random : static_cast<Content>(random.between(1, 3));
        Planes src = makePlanes(operation.src, size, random, guard);
        Planes dst = makePlanes(operation.dst, size, random, guard);
        for (TestPlane& plane : src)
          plane.fill(content, random);
        SCOPED_TRACE(testing::Message()
                     << size.width << "x" << size.height << " plain " << plainOnly);
        setPlainRowsOnly(plainOnly ? 1 : 0);
        const int32_t result = convertImage(describe(src, size), describe(dst, size), operation.op);
        setPlainRowsOnly(0);
        ASSERT_EQ(result, 0);
        const Expected expected = operation.expected(src, size, plainOnly);
        for (size_t i = 0; i < dst.size(); ++i)
          ASSERT_TRUE(holds(dst[i], expected[i])) << "plane " << i;
      }
}

TEST_P(ColorConversion, refusesWithoutWriting) {
  const Operation& operation = GetParam();
  const Size size = {20, 6};
  Random random(tavro::test::baseSeed());
  Planes src = makePlanes(operation.src, size, random, Guard::behind);
  Planes dst = makePlanes(operation.dst, size, random, Guard::behind);
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
  for (const TestPlane& plane : dst)
    EXPECT_TRUE(holds(plane, Bytes(plane.bytes.size(), GuardedBuffer<uint8_t>::poison)));
}

INSTANTIATE_TEST_SUITE_P(Operations, ColorConversion, testing::ValuesIn(operations),
                         [](const testing::TestParamInfo<Operation>& instance) {
                           return std::to_string(static_cast<int32_t>(instance.param.op));
                         });

TEST(ColorConversionLayouts, twoPlanesAndBackGiveTheSameImage) {
  const uint64_t seed = tavro::test::baseSeed();
  SCOPED_TRACE(tavro::test::seedNote(seed));
  Random random(seed);
  const struct {
    ColorOp there, back;
    bool isInverse;
  } trips[] = {{ColorOp::I420ToNv12, ColorOp::Nv12ToI420, true},
               {ColorOp::I420ToNv21, ColorOp::Nv21ToI420, true},
               {ColorOp::I420ToNv21, ColorOp::Nv12ToI420, false}};
  for (const auto& trip : trips)
    for (const Size size : {Size{1, 1}, {5, 3}, {33, 7}, {64, 48}, {161, 91}}) {
      Planes start = makePlanes(threePlanes, size, random, Guard::behind);
      Planes between = makePlanes(twoPlanes, size, random, Guard::behind);
      Planes end = makePlanes(threePlanes, size, random, Guard::inFront);
      for (TestPlane& plane : start)
        plane.fill(Content::random, random);
      ASSERT_EQ(convertImage(describe(start, size), describe(between, size), trip.there), 0);
      ASSERT_EQ(convertImage(describe(between, size), describe(end, size), trip.back), 0);
      EXPECT_TRUE(holds(end[0], samplesOf(start[0])));
      // Read in the other order, U and V come back exchanged.
      EXPECT_TRUE(holds(end[1], samplesOf(start[trip.isInverse ? 1 : 2])));
      EXPECT_TRUE(holds(end[2], samplesOf(start[trip.isInverse ? 2 : 1])));
    }
}

TEST(ColorConversionKernels, widthsBelowOneDoNothing) {
  for (const bool plainOnly : {false, true})
    for (const int32_t width : {0, -1, -16, -37}) {
      const uint8_t unread[4] = {};
      uint8_t first = 7, second = 7;
      setPlainRowsOnly(plainOnly ? 1 : 0);
      for (const PixelLayout& layout : {rgb24, bgr24, rgba32, bgra32, argb32, abgr32}) {
        chooseLumaRow(width, layout)(unread, &first, width);
        chooseChromaRow(width, layout)(unread, 0, &first, &second, width);
      }
      for (const PackedOp op :
           {PackedOp::addOpaque, PackedOp::dropLast, PackedOp::addOpaqueSwapped})
        choosePackedRow(width, op)(unread, &first, width);
      chooseMergeChromaRow(width)(unread, unread, &first, width);
      chooseSplitChromaRow(width)(unread, &first, &second, width);
      setPlainRowsOnly(0);
      EXPECT_TRUE(first == 7 && second == 7) << width;
    }
}

// Y, U and V of plain colours, by the block form (whole images) and by the plain one.
TEST(ColorConversionColours, knownAnswers) {
  struct Answer {
    std::array<uint8_t, 3> rgb;
    std::array<uint8_t, 3> block, plain;
  };
  const Answer answers[] = {
      {{255, 255, 255}, {237, 128, 128}, {235, 128, 128}},
      {{0, 0, 0}, {16, 128, 128}, {16, 128, 128}},
      {{255, 0, 0}, {81, 90, 239}, {82, 90, 240}},
      {{0, 255, 0}, {145, 54, 34}, {144, 54, 34}},
      {{0, 0, 255}, {41, 239, 110}, {41, 240, 110}},
  };
  for (const Answer& answer : answers)
    for (const bool plainOnly : {false, true}) {
      const auto [r, g, b] = answer.rgb;
      uint8_t pixels[] = {r, g, b, r, g, b};
      uint8_t y[2], u[1], v[1];
      ImageDesc src, dst;
      src.planes[0] = pixels;
      src.strides[0] = 6;
      src.widths[0] = 2;
      src.heights[0] = 1;
      dst.planes[0] = y;
      dst.planes[1] = u;
      dst.planes[2] = v;
      setPlainRowsOnly(plainOnly ? 1 : 0);
      EXPECT_EQ(convertImage(src, dst, ColorOp::Rgb24ToI420), 0);
      setPlainRowsOnly(0);
      const std::array<uint8_t, 3> actual = {y[1], u[0], v[0]};
      EXPECT_EQ(actual, plainOnly ? answer.plain : answer.block);
      EXPECT_EQ(convertImage(src, dst, ColorOp::Rgb24ToLuma), 0);
      EXPECT_EQ(y[0], answer.plain[0]);
    }
}

}  // namespace
}  // namespace TavroRTC::FDModule
