#include "image/image_dispatch.h"

#include <gtest/gtest.h>

#include <array>
#include <utility>
#include <vector>

#include "tests/image/reference.h"
#include "tests/support/scarce_memory.h"
#include "tests/support/traced_random.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

// A 4:2:0 image, each plane in guarded memory of its own, or one whose plane 0 holds packed pixels;
// the unread fields hold junk.
struct Frame {
  Frame(int32_t width, int32_t height, Guard guard = Guard::behind, int32_t bytes = 1)
      : bytesPerPixel(bytes),
        planes{{width * bytes, height, 3, guard},
               {(width + 1) / 2, (height + 1) / 2, 2, guard},
               {(width + 1) / 2, (height + 1) / 2, 1, guard}} {}

  void fillRandom(Random& random) {
    for (TestPlane& plane : planes)
      plane.fill(Content::random, random);
  }
  ImageDesc describe(ImageFormat format = ImageFormat::I420) {
    ImageDesc desc = {.planes = {planes[0].bytes.data(), noMemory.data(), noMemory.data()},
                      .widths = {planes[0].width / bytesPerPixel, -5, 1 << 30},
                      .heights = {planes[0].height, 0, -1},
                      .strides = {planes[0].stride, INT32_MIN, INT32_MAX},
                      .format = format};
    for (int i = 1; i < 3 && format == ImageFormat::I420; ++i) {
      desc.planes[i] = planes[i].bytes.data();
      desc.strides[i] = planes[i].stride;
    }
    return desc;
  }
  bool isUntouched() const {
    const std::vector<uint8_t> poison(planes[0].bytes.size(), GuardedBuffer<uint8_t>::poison);
    return holds(planes[0], poison) && holds(planes[1], poison) && holds(planes[2], poison);
  }

  int32_t bytesPerPixel;
  TestPlane planes[3];
  GuardedBuffer<uint8_t> noMemory{0};  // its address is one that stops the program
};

int32_t bytesPerPixelOf(ImageFormat format) {
  if (format <= ImageFormat::Packed32Fourth)
    return 4;
  return format <= ImageFormat::Bgr24 ? 3 : 1;
}

// The part `rect` of the frame, by scaleImage if it is the whole frame.
void checkScaling(Frame& src, Frame& dst, const CropRect& rect, ImageFormat format,
                  int32_t filter) {
  const TestPlane& luma = src.planes[0];
  const int32_t width = luma.width / src.bytesPerPixel;
  SCOPED_TRACE(testing::Message() << width << "x" << luma.height << " crop " << rect.x << ","
                                  << rect.y << " " << rect.width << "x" << rect.height << " format "
                                  << static_cast<int32_t>(format));
  const ImageDesc source = src.describe(format);
  ImageDesc target = dst.describe();
  target.format = static_cast<ImageFormat>(filter + 6);
  const auto code = static_cast<ScaleFilter>(filter);
  const bool isWhole = rect.width == width && rect.height == luma.height;
  ASSERT_EQ(
      isWhole ? scaleImage(source, target, code) : cropAndScaleImage(source, target, rect, code),
      0);
  if (src.bytesPerPixel != 1) {
    PackedView view(luma, src.bytesPerPixel);
    view.left = rect.x;
    view.top = rect.y;
    view.width = rect.width;
    view.height = rect.height;
    ASSERT_TRUE(
        holds(dst.planes[0], scaledPacked(view, target.widths[0], target.heights[0], filter)));
    return;
  }
  const auto half = [](int32_t n) { return (n + 1) / 2; };
  for (int n = 0; n < (format == ImageFormat::I420 ? 3 : 1); ++n) {
    const PlaneView view = n == 0 ? PlaneView(luma, rect.x, rect.y, rect.width, rect.height)
                                  : PlaneView(src.planes[n], half(rect.x), half(rect.y),
                                              half(rect.width), half(rect.height));
    const TestPlane& plane = dst.planes[n];
    ASSERT_TRUE(holds(plane, scaledPlane(view, plane.width, plane.height, filter))) << n;
  }
}

TEST(ImageDispatch, scalesAndCrops) {
  TracedRandom random;
  for (const auto& [width, height, dstWidth, dstHeight] :
       {std::array{641, 361, 193, 95}, {383, 383, 192, 192}, {32768, 1, 4, 1}, {1, 32768, 1, 4}}) {
    Frame src(width, height);
    src.fillRandom(random);
    Frame dst(dstWidth, dstHeight);
    checkScaling(src, dst, {0, 0, width, height}, ImageFormat::I420, 2);
  }
  for (int32_t i = 0; i < caseCount(600) && !HasFatalFailure(); ++i) {
    const int32_t width = random.between(1, 40), height = random.between(1, 40);
    const ImageFormat formats[] = {ImageFormat::I420, ImageFormat::I420, ImageFormat::Gray8,
                                   static_cast<ImageFormat>(random.between(0, 5))};
    const ImageFormat format = formats[random.between(0, 3)];
    const int32_t bytes = bytesPerPixelOf(format);
    Frame src(width, height, random.chance(0.5) ? Guard::behind : Guard::inFront, bytes);
    src.fillRandom(random);
    CropRect rect = {random.between(0, width - 1), random.between(0, height - 1), 0, 0};
    rect.width = random.chance(0.3) ? width - rect.x : random.between(1, width - rect.x);
    rect.height = random.chance(0.3) ? height - rect.y : random.between(1, height - rect.y);
    Frame dst(random.chance(0.2) ? rect.width : random.between(1, 40),
              random.chance(0.2) ? rect.height : random.between(1, 40), Guard::behind, bytes);
    checkScaling(src, dst, rect, format, random.between(0, 2));
  }
}

TEST(ImageDispatch, cropRectangles) {
  Frame src(10, 8);
  Frame dst(4, 4);
  const ImageDesc target = dst.describe();
  const CropRect bad[] = {{-1, 0, 4, 4},        {0, -1, 4, 4},        {7, 0, 4, 4},  {0, 5, 4, 4},
                          {1, 0, INT32_MAX, 4}, {0, 1, 4, INT32_MAX}, {4, 0, -2, 4}, {0, 4, 4, -2}};
  for (const CropRect& rect : bad)
    for (const int format : {0, 4, 6, 7, 9, 10})
      EXPECT_EQ(cropAndScaleImage(src.describe(static_cast<ImageFormat>(format)), target, rect,
                                  ScaleFilter::Bilinear),
                -1)
          << rect.x << ' ' << rect.y << ' ' << rect.width << ' ' << rect.height;
  for (const CropRect& empty : {CropRect{3, 3, 0, 2}, {10, 8, 0, 0}, {3, 3, 2, 0}})
    for (const ImageFormat format :
         {ImageFormat::I420, ImageFormat::Gray8, ImageFormat::Packed32, ImageFormat::Bgr24})
      EXPECT_EQ(cropAndScaleImage(src.describe(format), target, empty, ScaleFilter::Linear), -1);
  EXPECT_TRUE(dst.isUntouched());
  EXPECT_EQ(cropAndScaleImage(src.describe(), target, {6, 4, 4, 4}, ScaleFilter::Bilinear), 0);
}

TEST(ImageDispatch, refusesWithoutWriting) {
  for (const ImageFormat format : {ImageFormat::I420, ImageFormat::Gray8, ImageFormat::Packed32,
                                   ImageFormat::Packed24, ImageFormat::Bgr24}) {
    // Steps below two samples, which need a work row, so that memory can be missing.
    Frame src(12, 12, Guard::behind, bytesPerPixelOf(format));
    Frame dst(8, 8, Guard::behind, bytesPerPixelOf(format));
    ImageDesc source = src.describe(format);
    ImageDesc target = dst.describe();
    const auto expectRefusal = [&](int64_t what, ScaleFilter filter = ScaleFilter::Bilinear) {
      EXPECT_EQ(scaleImage(source, target, filter), -1) << what;
      EXPECT_EQ(cropAndScaleImage(source, target, {1, 1, 11, 11}, filter), -1) << what;
    };
    for (ImageDesc* desc : {&source, &target})
      for (int n = 0; n < (format == ImageFormat::I420 ? 3 : 1); ++n) {
        uint8_t* plane = std::exchange(desc->planes[n], nullptr);
        expectRefusal(n);
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
    EXPECT_TRUE(dst.isUntouched());
    EXPECT_EQ(scaleImage(source, target, ScaleFilter::Bilinear), 0);
  }
}

TEST(ImageDispatch, codesThatNameNothingDoNothing) {
  Frame src(10, 8);
  Frame dst(4, 4);
  for (const int32_t format : {-1, 7, 8, 10, INT32_MAX}) {
    const ImageDesc source = src.describe(static_cast<ImageFormat>(format));
    EXPECT_EQ(scaleImage(source, dst.describe(), ScaleFilter::Bilinear), 0) << format;
    EXPECT_EQ(cropAndScaleImage(source, dst.describe(), {0, 0, 5, 0}, ScaleFilter::Linear), 0);
  }
  for (const int32_t op : {-1, 3, 4, 5, 26, INT32_MIN})
    EXPECT_EQ(convertImage(src.describe(), dst.describe(), static_cast<ColorOp>(op)), 0) << op;
  EXPECT_TRUE(dst.isUntouched());
}

}  // namespace
}  // namespace TavroRTC::FDModule
