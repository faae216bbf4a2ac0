// The three functions over image descriptors: parts of images of every format byte for byte against
// the formulas, what they refuse, and that a refusal writes nothing.

#include "image/image_dispatch.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "tests/image/reference.h"
#include "tests/support/random.h"
#include "tests/support/scarce_memory.h"

namespace TavroRTC::FDModule {
namespace {

using namespace tavro::test;

int32_t bytesPerPixelOf(ImageFormat format) {
  if (format <= ImageFormat::Packed32Fourth)
    return 4;
  return format <= ImageFormat::Bgr24 ? 3 : 1;
}

std::vector<Size> planesOf(ImageFormat format, Size size) {
  if (format == ImageFormat::I420)
    return {size, size.half(), size.half()};
  return {{size.width * bytesPerPixelOf(format), size.height}};
}

std::vector<Bytes> expectedPart(const Planes& src, ImageFormat format, const CropRect& rect,
                                Size to, int32_t filter, bool plainOnly) {
  std::vector<Bytes> planes = {
      scaled({src[0], bytesPerPixelOf(format), rect.x, rect.y, rect.width, rect.height}, to.width,
             to.height, filter, plainOnly)};
  const auto half = [](int32_t n) { return (n + 1) / 2; };
  for (size_t n = 1; n < src.size(); ++n)
    planes.push_back(
        scaled({src[n], 1, half(rect.x), half(rect.y), half(rect.width), half(rect.height)},
               half(to.width), half(to.height), filter, plainOnly));
  return planes;
}

TEST(ImageDispatch, ScalesAndCrops) {
  // The packed formats have the codes 0 to 5.
  EXPECT_TRUE(sweep(caseCount(240), [](Random& random, int32_t i) {
    const auto packed = static_cast<ImageFormat>(i % 6);
    const ImageFormat formats[] = {packed, i % 2 == 0 ? ImageFormat::I420 : ImageFormat::Gray8};
    const ImageFormat format = formats[i / 6 % 2];
    const Size size = {random.between(1, 40), random.between(1, 40)};
    const auto part = [&](int32_t left) {
      return random.chance(0.3) ? left : random.between(1, left);
    };
    CropRect rect = {random.between(0, size.width - 1), random.between(0, size.height - 1), 0, 0};
    rect.width = part(size.width - rect.x);
    rect.height = part(size.height - rect.y);
    const Size to = {random.chance(0.2) ? rect.width : random.between(1, 40),
                     random.chance(0.2) ? rect.height : random.between(1, 40)};
    const int32_t filter = random.between(0, 2);
    const bool isWhole = rect.width == size.width && rect.height == size.height;
    const auto run = [=](Planes& src, Planes& dst) {
      const ImageDesc source = describe(src, size, format);
      const ImageDesc target = describe(dst, to, static_cast<ImageFormat>(filter + 6));  // not read
      const auto code = static_cast<ScaleFilter>(filter);
      return isWhole ? scaleImage(source, target, code)
                     : cropAndScaleImage(source, target, rect, code);
    };
    const auto expected = [=](const Planes& src, bool plainOnly) {
      return expectedPart(src, format, rect, to, filter, plainOnly);
    };
    return checkImage({planesOf(format, size), planesOf(format, to), run, expected}, random)
           << ", crop " << rect.x << ',' << rect.y << ", format " << static_cast<int32_t>(format);
  }));
}

/// An image in planes of its own.
struct Image {
  Image(ImageFormat format, Size size, Random& random)
      : planes(makePlanes(planesOf(format, size), random)), desc(describe(planes, size, format)) {}

  Planes planes;
  ImageDesc desc;
};

TEST(ImageDispatch, RefusesWithoutWriting) {
  TracedRandom random;
  for (const ImageFormat format : {ImageFormat::I420, ImageFormat::Gray8, ImageFormat::Packed32,
                                   ImageFormat::Packed24, ImageFormat::Bgr24}) {
    SCOPED_TRACE(static_cast<int32_t>(format));
    // Steps below two samples, which need a work row, so that memory can be missing.
    Image src(format, {12, 12}, random);
    Image dst(format, {8, 8}, random);
    const auto expectRefusal = [&](int64_t what, ScaleFilter filter = ScaleFilter::Bilinear,
                                   bool crops = true) {
      EXPECT_EQ(scaleImage(src.desc, dst.desc, filter), -1) << what;
      if (crops) {
        EXPECT_EQ(cropAndScaleImage(src.desc, dst.desc, {1, 1, 11, 11}, filter), -1) << what;
      }
    };
    for (ImageDesc* desc : {&src.desc, &dst.desc})
      for (size_t n = 0; n < src.planes.size(); ++n) {
        uint8_t* plane = std::exchange(desc->planes[n], nullptr);
        expectRefusal(static_cast<int64_t>(n));
        desc->planes[n] = plane;
      }
    const int32_t bytes = bytesPerPixelOf(format);
    for (int32_t* size : {dst.desc.widths, dst.desc.heights, src.desc.widths, src.desc.heights}) {
      const bool isSource = size == src.desc.widths || size == src.desc.heights;
      // The largest source, or the most bytes of a row that an int32 counts.
      const int32_t tooLarge = isSource ? (bytes == 1 ? 32769 : 32768)
                               : size == dst.desc.widths && bytes != 1 ? INT32_MAX / bytes + 1
                                                                       : 0;
      const int32_t good = *size;
      for (const int32_t bad : {0, -1, INT32_MIN, tooLarge}) {
        *size = bad;
        expectRefusal(bad, ScaleFilter::Bilinear, !isSource);
      }
      *size = good;
    }
    for (const int32_t filter : {3, -1})
      expectRefusal(filter, static_cast<ScaleFilter>(filter));
    {
      const ScarceMemory none;
      expectRefusal(0);
    }
    EXPECT_TRUE(isUntouched(dst.planes));
    EXPECT_EQ(scaleImage(src.desc, dst.desc, ScaleFilter::Bilinear), 0);
  }
}

TEST(ImageDispatch, RefusesPartsThatAreNotInside) {
  TracedRandom random;
  Image src(ImageFormat::I420, {10, 8}, random);
  Image dst(ImageFormat::I420, {4, 4}, random);
  const auto expectRefusal = [&](const CropRect& rect, const std::vector<int32_t>& formats) {
    for (const int32_t format : formats) {
      src.desc.format = static_cast<ImageFormat>(format);
      EXPECT_EQ(cropAndScaleImage(src.desc, dst.desc, rect, ScaleFilter::Bilinear), -1)
          << rect.x << ' ' << rect.y << ' ' << rect.width << ' ' << rect.height << ' ' << format;
    }
  };
  const CropRect outside[] = {{-1, 0, 4, 4},        {0, -1, 4, 4},       {7, 0, 4, 4},
                              {0, 5, 4, 4},         {4, 0, -2, 4},       {0, 4, 4, -2},
                              {1, 0, INT32_MAX, 4}, {0, 1, 4, INT32_MAX}};
  for (const CropRect& rect : outside)
    expectRefusal(rect, {0, 4, 6, 7, 9, 10});
  for (const CropRect& empty : {CropRect{3, 3, 0, 2}, {10, 8, 0, 0}, {3, 3, 2, 0}})
    expectRefusal(empty, {0, 5, 6, 9});
  // No scaling, but chroma behind the plane's edge, of which a copy is made.
  src.desc.format = ImageFormat::I420;
  Image same(ImageFormat::I420, {3, 3}, random);
  for (const bool hasMemory : {false, true}) {
    EXPECT_TRUE(isUntouched(same.planes));
    const ScarceMemory scarce(hasMemory ? INT64_MAX : 0);
    EXPECT_EQ(cropAndScaleImage(src.desc, same.desc, {7, 5, 3, 3}, ScaleFilter::Bilinear),
              hasMemory ? 0 : -1);
  }
  EXPECT_TRUE(isUntouched(dst.planes));
  const ScarceMemory none;  // a part that ends with the planes needs no copy
  EXPECT_EQ(cropAndScaleImage(src.desc, dst.desc, {6, 4, 4, 4}, ScaleFilter::Bilinear), 0);
}

TEST(ImageDispatch, CodesThatNameNothingDoNothing) {
  TracedRandom random;
  Image src(ImageFormat::I420, {10, 8}, random);
  Image dst(ImageFormat::I420, {4, 4}, random);
  for (const int32_t format : {-1, 7, 8, 10, INT32_MAX}) {
    src.desc.format = static_cast<ImageFormat>(format);
    EXPECT_EQ(scaleImage(src.desc, dst.desc, ScaleFilter::Bilinear), 0) << format;
    EXPECT_EQ(cropAndScaleImage(src.desc, dst.desc, {0, 0, 5, 0}, ScaleFilter::Linear), 0);
  }
  for (const int32_t op : {-1, 3, 4, 5, 26, INT32_MIN})
    EXPECT_EQ(convertImage(src.desc, dst.desc, static_cast<ColorOp>(op)), 0) << op;
  EXPECT_TRUE(isUntouched(dst.planes));
}

}  // namespace
}  // namespace TavroRTC::FDModule
