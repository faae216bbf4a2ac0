#include "image/image_dispatch.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "tests/image/image_sweep.h"
#include "tests/support/scarce_memory.h"
#include "tests/support/traced_random.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

int32_t bytesPerPixelOf(ImageFormat format) {
  if (format <= ImageFormat::Packed32Fourth)
    return 4;
  return format <= ImageFormat::Bgr24 ? 3 : 1;
}

struct Frame {
  Frame(ImageFormat frameFormat, Size frameSize, Random& random, Guard guard = Guard::behind)
      : format(frameFormat),
        size(frameSize),
        bytesPerPixel(bytesPerPixelOf(format)),
        planes(makePlanes(format == ImageFormat::I420
                              ? std::vector{size, size.half(), size.half()}
                              : std::vector{Size{size.width * bytesPerPixel, size.height}},
                          random, guard)) {}

  ImageDesc describe() { return tavro::test::describe(planes, size, format); }

  ImageFormat format;
  Size size;
  int32_t bytesPerPixel;
  Planes planes;
};

// The part `rect` of the frame, by scaleImage if it is the whole frame.
void checkScaling(Frame& src, Frame& dst, const CropRect& rect, int32_t filter) {
  SCOPED_TRACE(testing::Message() << src.size.width << "x" << src.size.height << " crop " << rect.x
                                  << "," << rect.y << " " << rect.width << "x" << rect.height
                                  << " format " << static_cast<int32_t>(src.format));
  const ImageDesc source = src.describe();
  ImageDesc target = dst.describe();
  target.format = static_cast<ImageFormat>(filter + 6);  // without effect
  const auto code = static_cast<ScaleFilter>(filter);
  const bool isWhole = rect.width == src.size.width && rect.height == src.size.height;
  ASSERT_EQ(
      isWhole ? scaleImage(source, target, code) : cropAndScaleImage(source, target, rect, code),
      0);
  if (src.bytesPerPixel != 1) {
    PackedView view(src.planes[0], src.bytesPerPixel);
    view.left = rect.x;
    view.top = rect.y;
    view.width = rect.width;
    view.height = rect.height;
    ASSERT_TRUE(holds(dst.planes[0], scaledPacked(view, dst.size.width, dst.size.height, filter)));
    return;
  }
  const auto half = [](int32_t n) { return (n + 1) / 2; };
  for (size_t n = 0; n < src.planes.size(); ++n) {
    const PlaneView view = n == 0
                               ? PlaneView(src.planes[0], rect.x, rect.y, rect.width, rect.height)
                               : PlaneView(src.planes[n], half(rect.x), half(rect.y),
                                           half(rect.width), half(rect.height));
    const TestPlane& plane = dst.planes[n];
    ASSERT_TRUE(holds(plane, scaledPlane(view, plane.width, plane.height, filter))) << n;
  }
}

TEST(ImageDispatch, scalesAndCrops) {
  TracedRandom random;
  for (int32_t i = 0; i < caseCount(600) && !HasFatalFailure(); ++i) {
    const ImageFormat formats[] = {ImageFormat::I420, ImageFormat::I420, ImageFormat::Gray8,
                                   static_cast<ImageFormat>(random.between(0, 5))};
    const ImageFormat format = formats[random.between(0, 3)];
    const Size size = {random.between(1, 40), random.between(1, 40)};
    Frame src(format, size, random, random.chance(0.5) ? Guard::behind : Guard::inFront);
    for (TestPlane& plane : src.planes)
      plane.fill(Content::random, random);
    CropRect rect = {random.between(0, size.width - 1), random.between(0, size.height - 1), 0, 0};
    rect.width = random.chance(0.3) ? size.width - rect.x : random.between(1, size.width - rect.x);
    rect.height =
        random.chance(0.3) ? size.height - rect.y : random.between(1, size.height - rect.y);
    Frame dst(format,
              {random.chance(0.2) ? rect.width : random.between(1, 40),
               random.chance(0.2) ? rect.height : random.between(1, 40)},
              random);
    checkScaling(src, dst, rect, random.between(0, 2));
  }
}

TEST(ImageDispatch, cropRectangles) {
  TracedRandom random;
  Frame src(ImageFormat::I420, {10, 8}, random);
  Frame dst(ImageFormat::I420, {4, 4}, random);
  ImageDesc source = src.describe();
  const ImageDesc target = dst.describe();
  const CropRect bad[] = {{-1, 0, 4, 4},        {0, -1, 4, 4},        {7, 0, 4, 4},  {0, 5, 4, 4},
                          {1, 0, INT32_MAX, 4}, {0, 1, 4, INT32_MAX}, {4, 0, -2, 4}, {0, 4, 4, -2}};
  for (const CropRect& rect : bad)
    for (const int format : {0, 4, 6, 7, 9, 10}) {
      source.format = static_cast<ImageFormat>(format);
      EXPECT_EQ(cropAndScaleImage(source, target, rect, ScaleFilter::Bilinear), -1)
          << rect.x << ' ' << rect.y << ' ' << rect.width << ' ' << rect.height;
    }
  for (const CropRect& empty : {CropRect{3, 3, 0, 2}, {10, 8, 0, 0}, {3, 3, 2, 0}})
    for (const ImageFormat format :
         {ImageFormat::I420, ImageFormat::Gray8, ImageFormat::Packed32, ImageFormat::Bgr24}) {
      source.format = format;
      EXPECT_EQ(cropAndScaleImage(source, target, empty, ScaleFilter::Linear), -1);
    }
  EXPECT_TRUE(isUntouched(dst.planes));
  EXPECT_EQ(cropAndScaleImage(src.describe(), target, {6, 4, 4, 4}, ScaleFilter::Bilinear), 0);
}

TEST(ImageDispatch, refusesWithoutWriting) {
  TracedRandom random;
  for (const ImageFormat format : {ImageFormat::I420, ImageFormat::Gray8, ImageFormat::Packed32,
                                   ImageFormat::Packed24, ImageFormat::Bgr24}) {
    // Steps below two samples, which need a work row, so that memory can be missing.
    Frame src(format, {12, 12}, random);
    Frame dst(format, {8, 8}, random);
    ImageDesc source = src.describe();
    ImageDesc target = dst.describe();
    const auto expectRefusal = [&](int64_t what, ScaleFilter filter = ScaleFilter::Bilinear) {
      EXPECT_EQ(scaleImage(source, target, filter), -1) << what;
      EXPECT_EQ(cropAndScaleImage(source, target, {1, 1, 11, 11}, filter), -1) << what;
    };
    for (ImageDesc* desc : {&source, &target})
      for (size_t n = 0; n < src.planes.size(); ++n) {
        uint8_t* plane = std::exchange(desc->planes[n], nullptr);
        expectRefusal(static_cast<int64_t>(n));
        desc->planes[n] = plane;
      }
    for (int32_t* size : {target.widths, target.heights}) {
      const int32_t good = *size;
      for (const int32_t bad : {0, -1, INT32_MIN}) {
        *size = bad;
        expectRefusal(bad);
      }
      *size = good;
    }
    if (src.bytesPerPixel != 1) {  // a row of more bytes than an int32 counts
      const int32_t good = std::exchange(target.widths[0], INT32_MAX / src.bytesPerPixel + 1);
      expectRefusal(target.widths[0]);
      target.widths[0] = good;
    }
    for (const int32_t filter : {3, -1})
      expectRefusal(filter, static_cast<ScaleFilter>(filter));
    {
      const ScarceMemory none;
      expectRefusal(0);
    }
    for (int32_t* size : {source.widths, source.heights}) {
      const int32_t good = *size;
      const int32_t tooLarge = src.bytesPerPixel == 1 ? 32769 : 32768;
      for (const int32_t bad : {0, -1, INT32_MIN, tooLarge, INT32_MAX}) {
        *size = bad;
        EXPECT_EQ(scaleImage(source, target, ScaleFilter::Bilinear), -1) << bad;
      }
      *size = good;
    }
    EXPECT_TRUE(isUntouched(dst.planes));
    EXPECT_EQ(scaleImage(source, target, ScaleFilter::Bilinear), 0);
  }
}

TEST(ImageDispatch, codesThatNameNothingDoNothing) {
  TracedRandom random;
  Frame src(ImageFormat::I420, {10, 8}, random);
  Frame dst(ImageFormat::I420, {4, 4}, random);
  for (const int32_t format : {-1, 7, 8, 10, INT32_MAX}) {
    ImageDesc source = src.describe();
    source.format = static_cast<ImageFormat>(format);
    EXPECT_EQ(scaleImage(source, dst.describe(), ScaleFilter::Bilinear), 0) << format;
    EXPECT_EQ(cropAndScaleImage(source, dst.describe(), {0, 0, 5, 0}, ScaleFilter::Linear), 0);
  }
  for (const int32_t op : {-1, 3, 4, 5, 26, INT32_MIN})
    EXPECT_EQ(convertImage(src.describe(), dst.describe(), static_cast<ColorOp>(op)), 0) << op;
  EXPECT_TRUE(isUntouched(dst.planes));
}

}  // namespace
}  // namespace TavroRTC::FDModule
