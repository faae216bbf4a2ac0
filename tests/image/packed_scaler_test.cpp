#include "image/packed_scaler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "image/row_kernels.h"
#include "tests/image/reference.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::test::Content;
using tavro::test::Guard;
using tavro::test::holds;
using tavro::test::PackedView;
using tavro::test::Random;
using tavro::test::scaledPacked;
using tavro::test::TestPlane;

struct Sizes {
  int32_t srcWidth, srcHeight, dstWidth, dstHeight;
};

int32_t scaleInto(TestPlane& dst, const TestPlane& src, int32_t bytesPerPixel, int32_t filter) {
  return scalePacked(src.bytes.data(), src.stride, src.width / bytesPerPixel, src.height,
                     dst.bytes.data(), dst.stride, dst.width / bytesPerPixel, dst.height,
                     bytesPerPixel, static_cast<ScaleFilter>(filter));
}

// Both pixel sizes and every filter, by both forms, flush against the end or the start of a page.
void checkScaling(const Sizes& sizes, Content content, Random& random) {
  const auto guard = [&] { return random.chance(0.5) ? Guard::behind : Guard::inFront; };
  for (const int32_t bytesPerPixel : {3, 4}) {
    TestPlane src(sizes.srcWidth * bytesPerPixel, sizes.srcHeight, random.between(0, 3), guard());
    src.fill(content, random);
    for (int32_t i = 0; i < 6; ++i) {
      const int32_t filter = i / 2;
      const bool plainOnly = i % 2 == 1;
      SCOPED_TRACE(testing::Message()
                   << sizes.srcWidth << "x" << sizes.srcHeight << " to " << sizes.dstWidth << "x"
                   << sizes.dstHeight << " filter " << filter << " plain " << plainOnly << " bytes "
                   << bytesPerPixel);
      TestPlane dst(sizes.dstWidth * bytesPerPixel, sizes.dstHeight, random.between(0, 3), guard());
      setPlainRowsOnly(plainOnly ? 1 : 0);
      EXPECT_EQ(scaleInto(dst, src, bytesPerPixel, filter), 0);
      setPlainRowsOnly(0);
      ASSERT_TRUE(holds(dst, scaledPacked(PackedView(src, bytesPerPixel), sizes.dstWidth,
                                          sizes.dstHeight, filter, plainOnly)));
    }
  }
}

class PackedScaler : public testing::Test {
 protected:
  uint64_t seed = tavro::test::baseSeed();
  Random random{seed};
  testing::ScopedTrace note{__FILE__, __LINE__, tavro::test::seedNote(seed)};
};

TEST_F(PackedScaler, everyCaseAtEveryWidth) {
  for (int32_t width = 1; width <= 70 && !HasFatalFailure(); ++width) {
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
      checkScaling(sizes, static_cast<Content>(width % 4), random);
  }
}

TEST_F(PackedScaler, randomSizes) {
  for (int32_t i = 0; i < tavro::test::caseCount(600) && !HasFatalFailure(); ++i) {
    const int32_t limit = i % 3 == 0 ? 5 : 70;
    const auto size = [&](int32_t largest) { return random.between(1, largest); };
    checkScaling({size(limit), size(9), size(limit), size(9)}, Content::random, random);
  }
}

TEST_F(PackedScaler, extremeSizes) {
  const Sizes cases[] = {{1, 1, 2, 2},        {1, 1, 9, 3},     {1, 7, 2, 3},
                         {34, 1, 17, 5},  // halved columns of a single row
                         {2, 2, 1, 70000},    {1, 2, 70000, 1}, {32767, 2, 3, 1},
                         {3, 32767, 2, 1},    {32767, 1, 1, 2}, {32767, 2, 32766, 2},
                         {300, 200, 192, 192}};
  for (const Sizes& sizes : cases)
    checkScaling(sizes, Content::random, random);
}

// Two images with a pixel's value in each of its bytes: 20 * row + column, and 255 everywhere.
TEST_F(PackedScaler, knownPixels) {
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
  for (const int32_t bytesPerPixel : {3, 4}) {
    for (const auto& [sizes, filter, pixels] : rows) {
      TestPlane src(sizes.srcWidth * bytesPerPixel, sizes.srcHeight);
      for (int32_t i = 0; i < sizes.srcWidth * sizes.srcHeight * bytesPerPixel; ++i) {
        const int32_t pixel = i / bytesPerPixel;
        src.bytes[static_cast<size_t>(i)] =
            static_cast<uint8_t>(20 * (pixel / sizes.srcWidth) + pixel % sizes.srcWidth);
      }
      std::vector<uint8_t> expected;
      for (const uint8_t pixel : pixels)
        expected.insert(expected.end(), static_cast<size_t>(bytesPerPixel), pixel);
      TestPlane dst(sizes.dstWidth * bytesPerPixel, sizes.dstHeight);
      ASSERT_EQ(scaleInto(dst, src, bytesPerPixel, filter), 0);
      EXPECT_TRUE(holds(dst, expected)) << sizes.srcWidth << "x" << sizes.srcHeight << " filter "
                                        << filter << " bytes " << bytesPerPixel;
    }
    TestPlane src(300 * bytesPerPixel, 100);
    std::fill(src.bytes.begin(), src.bytes.end(), uint8_t{255});
    TestPlane dst(17 * bytesPerPixel, 20);
    ASSERT_EQ(scaleInto(dst, src, bytesPerPixel, 2), 0);
    const std::vector<uint8_t> flat(dst.bytes.size(), bytesPerPixel == 3 ? 255 : 253);
    EXPECT_TRUE(holds(dst, flat)) << bytesPerPixel;
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
