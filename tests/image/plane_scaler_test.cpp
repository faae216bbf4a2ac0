#include "image/plane_scaler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "image/row_kernels.h"
#include "image/scale_geometry.h"
#include "tests/image/reference.h"

namespace TavroRTC::FDModule {
namespace {

using tavro::test::Content;
using tavro::test::Guard;
using tavro::test::holds;
using tavro::test::PlaneView;
using tavro::test::Random;
using tavro::test::scaledPlane;
using tavro::test::TestPlane;

struct Sizes {
  int32_t srcWidth, srcHeight, dstWidth, dstHeight;
};

// Every filter, by both forms, in guarded memory.
void checkScaling(const Sizes& sizes, Content content, Random& random) {
  TestPlane src(sizes.srcWidth, sizes.srcHeight, random.between(0, 3),
                random.chance(0.5) ? Guard::behind : Guard::inFront);
  src.fill(content, random);
  for (int32_t i = 0; i < 6; ++i) {
    const int32_t filter = i / 2;
    const bool plainOnly = i % 2 == 1;
    SCOPED_TRACE(testing::Message()
                 << sizes.srcWidth << "x" << sizes.srcHeight << " to " << sizes.dstWidth << "x"
                 << sizes.dstHeight << " filter " << filter << " plain " << plainOnly);
    TestPlane dst(sizes.dstWidth, sizes.dstHeight, random.between(0, 3),
                  random.chance(0.5) ? Guard::behind : Guard::inFront);
    setPlainRowsOnly(plainOnly ? 1 : 0);
    EXPECT_TRUE(scalePlane(src.bytes.data(), src.stride, src.width, src.height, dst.bytes.data(),
                           dst.stride, dst.width, dst.height, static_cast<ScaleFilter>(filter)));
    setPlainRowsOnly(0);
    ASSERT_TRUE(holds(dst, scaledPlane(PlaneView(src), dst.width, dst.height, filter, plainOnly)));
  }
}

class PlaneScaler : public testing::Test {
 protected:
  uint64_t seed = tavro::test::baseSeed();
  Random random{seed};
  testing::ScopedTrace note{__FILE__, __LINE__, tavro::test::seedNote(seed)};
};

TEST_F(PlaneScaler, everyCaseAtEveryWidth) {
  for (int32_t width = 1; width <= 200 && !HasFatalFailure(); ++width) {
    const int32_t other = random.between(1, 300);
    const Sizes cases[] = {
        {width, 2, width, 2},      // copy
        {width, 3, width, 7},      // rows only
        {2 * width, 4, width, 2},  // halving
        {width, 3, 2 * width, 4},  // doubled columns
        {width, 5, other, 3},      // reduction
        {other, 5, width, 3},      //
        {other, 3, width, 3},      // columns only
        {other, 3, width, 8},      // enlargement
    };
    for (const Sizes& sizes : cases)
      checkScaling(sizes, static_cast<Content>(width % 4), random);
  }
}

TEST_F(PlaneScaler, extremeSizes) {
  const Sizes cases[] = {
      {16, 2, 16, 300},      {17, 2, 17, 300},      {31, 1, 31, 9},       {1, 5, 1, 2},
      {2, 2, 1, 1},          {66, 2, 33, 1},        {1, 1, 2, 2},         {1, 1, 9, 3},
      {1, 7, 2, 3},          {1, 7, 17, 3},         {9, 1, 20, 2},        {5, 1, 5, 2},
      {1280, 192, 192, 192}, {1280, 720, 192, 192}, {383, 383, 192, 192}, {100, 100, 192, 192},
      {32768, 1, 1, 1},      {1, 32768, 1, 1},      {32768, 3, 1, 2},     {3, 32768, 2, 1},
      {32767, 2, 1, 1},      {32768, 2, 3, 5},      {1000, 3, 7, 50}};
  for (const Sizes& sizes : cases)
    for (const Content content : {Content::random, Content::alternating})
      checkScaling(sizes, content, random);
}

TEST_F(PlaneScaler, randomSizes) {
  for (int32_t i = 0; i < tavro::test::caseCount(500) && !HasFatalFailure(); ++i) {
    const int32_t limit = i % 3 == 0 ? 5 : 60;
    const auto size = [&] { return random.between(1, limit); };
    checkScaling({size(), size(), size(), size()}, Content::random, random);
  }
}

TEST(ScaleVertical, oneRowStretchedToTwo) {
  TestPlane src(6, 1);
  std::fill(src.bytes.begin(), src.bytes.end(), uint8_t{9});
  TestPlane dst(6, 2);
  scaleVertical(1, 2, 2, 6, 6, src.bytes.data(), dst.bytes.data(), 0, 0, fixedRatioLast(1, 2), 3,
                ScaleFilter::Bilinear);
  EXPECT_TRUE(holds(dst, std::vector<uint8_t>(12, 9)));
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

TEST_F(PlaneScaler, flatFieldsLoseWhatTheBlockWeightsLack) {
  for (const int32_t value : {255, 128}) {
    TestPlane src(300, 100);
    std::fill(src.bytes.begin(), src.bytes.end(), static_cast<uint8_t>(value));
    TestPlane dst(17, 20);
    ASSERT_TRUE(scalePlane(src.bytes.data(), 300, 300, 100, dst.bytes.data(), 17, 17, 20,
                           ScaleFilter::Bilinear));
    for (int32_t x = 0; x < 17; ++x)
      ASSERT_EQ(dst.at(x, 19), x == 16 ? value : value == 255 ? 253 : 127);
  }
}

}  // namespace
}  // namespace TavroRTC::FDModule
