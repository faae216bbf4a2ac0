// The scalers of planes and of packed pixels, byte for byte against the formulas.

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "image/packed_scaler.h"
#include "image/plane_scaler.h"
#include "image/row_kernels.h"
#include "image/scale_geometry.h"
#include "tests/image/image_sweep.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::test::Bytes;
using tavro::test::checkImage;
using tavro::test::holds;
using tavro::test::PackedView;
using tavro::test::Planes;
using tavro::test::PlaneView;
using tavro::test::Random;
using tavro::test::scaledPacked;
using tavro::test::scaledPlane;
using tavro::test::sweep;
using tavro::test::TestPlane;

struct Sizes {
  int32_t srcWidth, srcHeight, dstWidth, dstHeight;
};

int32_t scaleInto(TestPlane& dst, const TestPlane& src, int32_t bytesPerPixel, int32_t filter) {
  const auto code = static_cast<ScaleFilter>(filter);
  if (bytesPerPixel == 1)
    return scalePlane(src.bytes.data(), src.stride, src.width, src.height, dst.bytes.data(),
                      dst.stride, dst.width, dst.height, code)
               ? 0
               : -1;
  return scalePacked(src.bytes.data(), src.stride, src.width / bytesPerPixel, src.height,
                     dst.bytes.data(), dst.stride, dst.width / bytesPerPixel, dst.height,
                     bytesPerPixel, code);
}

testing::AssertionResult checkScaling(const Sizes& sizes, int32_t bytesPerPixel, Random& random) {
  for (const int32_t filter : {0, 1, 2}) {
    const auto run = [=](Planes& src, Planes& dst) {
      return scaleInto(dst[0], src[0], bytesPerPixel, filter);
    };
    const auto expected = [=](const Planes& src, bool plainOnly) -> std::vector<Bytes> {
      if (bytesPerPixel == 1)
        return {scaledPlane(PlaneView(src[0]), sizes.dstWidth, sizes.dstHeight, filter, plainOnly)};
      return {scaledPacked(PackedView(src[0], bytesPerPixel), sizes.dstWidth, sizes.dstHeight,
                           filter, plainOnly)};
    };
    if (testing::AssertionResult result =
            checkImage({{{sizes.srcWidth * bytesPerPixel, sizes.srcHeight}},
                        {{sizes.dstWidth * bytesPerPixel, sizes.dstHeight}},
                        run,
                        expected},
                       random);
        !result)
      return result << ", filter " << filter << ", bytes a pixel " << bytesPerPixel;
  }
  return testing::AssertionSuccess();
}

// --- Sweeps, by bytes a pixel ---

class Scaler : public testing::TestWithParam<int32_t> {};

TEST_P(Scaler, everyCaseAtEveryWidth) {
  const int32_t largest = GetParam() == 1 ? 200 : 70;
  EXPECT_TRUE(sweep(largest, [](Random& random, int32_t i) -> testing::AssertionResult {
    const int32_t width = i + 1;
    const int32_t height = 1 + width % 9;
    const int32_t other = random.between(1, 150), rows = random.between(1, 9);
    const Sizes cases[] = {
        {width, height, width, height},          // copy
        {width, 2 * height, width, height},      // rows only, or blended with the neighbour
        {width, 3 * height, width, height},      // odd ratio of rows
        {width, height, width, height + rows},   // stretched rows
        {2 * width, 2 * height, width, height},  // halving
        {2 * width, 4 * height, width, height},  // halved columns, fewer rows
        {2 * width, height, width, height},      // halved columns, same rows
        {2 * width, 3 * height, width, height},  // even and odd
        {3 * width, 3 * height, width, height},  // odd ratios
        {3 * width, height, width, height},      //
        {width, height, 2 * width, 2 * height},  // enlargement
        {width, height, other, height + rows},   //
        {other, height, width, height},          // columns only
        {other, height + rows, width, height},   // reduction
        {width, height + rows, other, height},   //
    };
    for (const Sizes& sizes : cases)
      if (testing::AssertionResult result = checkScaling(sizes, GetParam(), random); !result)
        return result;
    return testing::AssertionSuccess();
  }));
}

TEST_P(Scaler, randomSizes) {
  EXPECT_TRUE(sweep(tavro::test::caseCount(300), [](Random& random, int32_t i) {
    const auto size = [&](int32_t largest) { return random.between(1, i % 3 == 0 ? 5 : largest); };
    return checkScaling({size(70), size(60), size(70), size(60)}, GetParam(), random);
  }));
}

INSTANTIATE_TEST_SUITE_P(BytesPerPixel, Scaler, testing::Values(1, 3, 4),
                         testing::PrintToStringParamName());

const Sizes extremePlanes[] = {
    {16, 2, 16, 300},      {17, 2, 17, 300},      {31, 1, 31, 9},       {1, 5, 1, 2},
    {2, 2, 1, 1},          {66, 2, 33, 1},        {1, 1, 2, 2},         {1, 1, 9, 3},
    {1, 7, 2, 3},          {1, 7, 17, 3},         {9, 1, 20, 2},        {5, 1, 5, 2},
    {1280, 192, 192, 192}, {1280, 720, 192, 192}, {383, 383, 192, 192}, {100, 100, 192, 192},
    {32768, 1, 1, 1},      {1, 32768, 1, 1},      {32768, 3, 1, 2},     {3, 32768, 2, 1},
    {32767, 2, 1, 1},      {32768, 2, 3, 5},      {1000, 3, 7, 50}};
const Sizes extremePackedImages[] = {{1, 1, 2, 2},         {1, 1, 9, 3},        {1, 7, 2, 3},
                                     {34, 1, 17, 5},       {2, 2, 1, 70000},    {1, 2, 70000, 1},
                                     {32767, 2, 3, 1},     {3, 32767, 2, 1},    {32767, 1, 1, 2},
                                     {32767, 2, 32766, 2}, {300, 200, 192, 192}};

TEST(ScalerSizes, extremes) {
  Random random(tavro::test::baseSeed());
  for (const Sizes& sizes : extremePlanes)
    EXPECT_TRUE(checkScaling(sizes, 1, random));
  for (const Sizes& sizes : extremePackedImages)
    for (const int32_t bytesPerPixel : {3, 4})
      EXPECT_TRUE(checkScaling(sizes, bytesPerPixel, random));
}

// --- Known answers ---

// Two images with a pixel's value in each of its bytes: 20 * row + column, and flat ones, which
// lose what the weights of the blocks lack.
TEST(PackedScaler, knownPixels) {
  const struct {
    Sizes sizes;
    int32_t filter;
    std::vector<uint8_t> pixels;
  } rows[] = {
      {{4, 4, 2, 2}, 0, {21, 23, 61, 63}},            // second pixels of the second rows
      {{4, 4, 2, 2}, 1, {21, 23, 61, 63}},            // rounded up from 20.5, ...
      {{4, 4, 2, 2}, 2, {11, 13, 51, 53}},            // 10.5, ...
      {{4, 8, 2, 2}, 2, {31, 33, 111, 113}},          // rows 1 and 2, then 5 and 6
      {{6, 6, 2, 2}, 2, {21, 24, 81, 84}},            // the middle of each box, exactly
      {{2, 9, 2, 3}, 2, {20, 21, 80, 81, 140, 141}},  //
      {{2, 9, 2, 3}, 1, {20, 21, 80, 81, 140, 141}},  //
      {{2, 4, 2, 2}, 2, {10, 11, 50, 51}},            // means of rows
  };
  for (const int32_t bytesPerPixel : {3, 4})
    for (const auto& [sizes, filter, pixels] : rows) {
      TestPlane src(sizes.srcWidth * bytesPerPixel, sizes.srcHeight);
      for (int32_t i = 0; i < sizes.srcWidth * sizes.srcHeight * bytesPerPixel; ++i) {
        const int32_t pixel = i / bytesPerPixel;
        src.bytes[static_cast<size_t>(i)] =
            static_cast<uint8_t>(20 * (pixel / sizes.srcWidth) + pixel % sizes.srcWidth);
      }
      Bytes expected;
      for (const uint8_t pixel : pixels)
        expected.insert(expected.end(), static_cast<size_t>(bytesPerPixel), pixel);
      TestPlane dst(sizes.dstWidth * bytesPerPixel, sizes.dstHeight);
      ASSERT_EQ(scaleInto(dst, src, bytesPerPixel, filter), 0);
      EXPECT_TRUE(holds(dst, expected)) << sizes.srcWidth << "x" << sizes.srcHeight << " filter "
                                        << filter << " bytes " << bytesPerPixel;
    }
}

TEST(ScalerSizes, flatFieldsLoseWhatTheBlockWeightsLack) {
  const struct {
    int32_t bytesPerPixel;
    uint8_t value, scaled, last;
  } rows[] = {{1, 255, 253, 255}, {1, 128, 127, 128}, {3, 255, 255, 255}, {4, 255, 253, 253}};
  for (const auto& [bytesPerPixel, value, scaled, last] : rows) {
    TestPlane src(300 * bytesPerPixel, 100);
    std::fill(src.bytes.begin(), src.bytes.end(), value);
    TestPlane dst(17 * bytesPerPixel, 20);
    ASSERT_EQ(scaleInto(dst, src, bytesPerPixel, 2), 0);
    for (int32_t i = 0; i < dst.width; ++i)
      ASSERT_EQ(dst.at(i, 19), i / bytesPerPixel == 16 ? last : scaled);
  }
}

TEST(ScaleGeometry, slopesOfKnownSizes) {
  const struct {
    Sizes sizes;
    ScaleFilter filter;
    int32_t x, y, dx, dy;
  } rows[] = {
      {{1280, 720, 192, 192}, ScaleFilter::Bilinear, 185685, 90112, 436906, 245760},
      {{1280, 192, 192, 192}, ScaleFilter::Linear, 218453, 32768, 436906, 65536},
      {{100, 100, 192, 192}, ScaleFilter::Bilinear, 0, 0, 33968, 33968},
      {{1, 1, 2, 3}, ScaleFilter::Bilinear, 0, 0, -1, 0},
      {{32768, 32768, 1, 1}, ScaleFilter::Nearest, 0x40000000, 0x40000000, INT32_MIN, INT32_MIN},
      {{32768, 1, 1, 1}, ScaleFilter::Bilinear, 0x40008000, 0, INT32_MIN, 65536}};
  for (const auto& row : rows) {
    int32_t x = 0, y = 0, dx = 0, dy = 0;
    computeScaleSlopes(row.sizes.srcWidth, row.sizes.srcHeight, row.sizes.dstWidth,
                       row.sizes.dstHeight, row.filter, x, y, dx, dy);
    EXPECT_TRUE(x == row.x && y == row.y && dx == row.dx && dy == row.dy)
        << row.sizes.srcWidth << ": " << x << ' ' << y << ' ' << dx << ' ' << dy;
  }
}

TEST(PackedScalerArguments, refusesWithoutWriting) {
  TestPlane src(60, 20);
  TestPlane dst(24, 8);
  const Sizes good = {15, 20, 6, 8};
  const auto expectRefusal = [&](const Sizes& sizes, int32_t bytesPerPixel = 4,
                                 int32_t filter = 2) {
    EXPECT_EQ(scalePacked(src.bytes.data(), 60, sizes.srcWidth, sizes.srcHeight, dst.bytes.data(),
                          24, sizes.dstWidth, sizes.dstHeight, bytesPerPixel,
                          static_cast<ScaleFilter>(filter)),
              -1)
        << sizes.srcWidth << "x" << sizes.srcHeight << " to " << sizes.dstWidth << "x"
        << sizes.dstHeight << " bytes " << bytesPerPixel << " filter " << filter;
  };
  for (int32_t Sizes::*size :
       {&Sizes::srcWidth, &Sizes::srcHeight, &Sizes::dstWidth, &Sizes::dstHeight}) {
    Sizes sizes = good;
    for (const int32_t bad : {0, -1, INT32_MIN}) {
      sizes.*size = bad;
      expectRefusal(sizes);
    }
  }
  for (const int32_t tooLarge : {32768, INT32_MAX}) {
    expectRefusal({tooLarge, 20, 6, 8});
    expectRefusal({15, tooLarge, 6, 8});
  }
  expectRefusal({15, 20, INT32_MAX / 4 + 1, 8});
  for (const int32_t bytesPerPixel : {-3, 0, 1, 2, 5})
    expectRefusal(good, bytesPerPixel);
  for (const int32_t filter : {-1, 3})
    expectRefusal(good, 3, filter);
  for (uint8_t* missing : {src.bytes.data(), dst.bytes.data()}) {
    const auto unless = [&](uint8_t* plane) { return plane == missing ? nullptr : plane; };
    EXPECT_EQ(scalePacked(unless(src.bytes.data()), 60, 15, 20, unless(dst.bytes.data()), 24, 6, 8,
                          4, ScaleFilter::Bilinear),
              -1);
  }
  EXPECT_TRUE(holds(
      dst, std::vector<uint8_t>(size_t{24} * 8, tavro::test::GuardedBuffer<uint8_t>::poison)));
}

}  // namespace
}  // namespace TavroRTC::FDModule
