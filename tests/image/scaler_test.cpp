// The scalers of planes and of packed pixels, byte for byte against the formulas.

#include <gtest/gtest.h>

#include <vector>

#include "image/scaler.h"
#include "tests/image/reference.h"
#include "tests/support/random.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

struct Sizes {
  int32_t srcWidth, srcHeight, dstWidth, dstHeight;
};

int32_t scaleInto(TestPlane& dst, const TestPlane& src, int32_t bytesPerPixel, int32_t filter) {
  const auto code = static_cast<ScaleFilter>(filter);
  if (bytesPerPixel == 1)
    return scalePlane(src.firstRow(), src.stride, src.width, src.height, dst.firstRow(), dst.stride,
                      dst.width, dst.height, code)
               ? 0
               : -1;
  return scalePacked(src.firstRow(), src.stride, src.width / bytesPerPixel, src.height,
                     dst.firstRow(), dst.stride, dst.width / bytesPerPixel, dst.height,
                     bytesPerPixel, code);
}

testing::AssertionResult checkScaling(const Sizes& sizes, int32_t bytesPerPixel, Random& random) {
  for (const int32_t filter : {0, 1, 2}) {
    const auto run = [=](Planes& src, Planes& dst) {
      return scaleInto(dst[0], src[0], bytesPerPixel, filter);
    };
    const auto expected = [=](const Planes& src, bool plainOnly) -> std::vector<Bytes> {
      return {scaled(ImagePart(src[0], bytesPerPixel), sizes.dstWidth, sizes.dstHeight, filter,
                     plainOnly)};
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

// By bytes a pixel.
class Scaler : public testing::TestWithParam<int32_t> {};

TEST_P(Scaler, EveryCaseAtEveryWidth) {
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

TEST_P(Scaler, RandomSizes) {
  EXPECT_TRUE(sweep(caseCount(300), [](Random& random, int32_t i) {
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

TEST(ScalerSizes, Extremes) {
  TracedRandom random;
  for (const Sizes& sizes : extremePlanes)
    EXPECT_TRUE(checkScaling(sizes, 1, random));
  for (const Sizes& sizes : extremePackedImages)
    for (const int32_t bytesPerPixel : {3, 4})
      EXPECT_TRUE(checkScaling(sizes, bytesPerPixel, random));
}

}  // namespace
}  // namespace TavroRTC::FDModule
