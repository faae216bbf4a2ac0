#include "image/image_dispatch.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "image/color_conversion.h"
#include "image/scaler.h"
#include "image/work_row.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int32_t done = 0;
constexpr int32_t refused = -1;

// Codes come from outside: they may lie beyond a table at either end, or in a gap of it.
template <typename Row, size_t count, typename Code>
const Row* findRow(const Row (&table)[count], Code code) {
  const auto index = static_cast<uint32_t>(code);
  return index < count ? &table[index] : nullptr;
}

// ---- Scaling, by format

using Scaler = int32_t(const ImageDesc& src, const ImageDesc& dst, ScaleFilter filter);

int32_t scaleI420(const ImageDesc& src, const ImageDesc& dst, ScaleFilter filter) {
  return scalePlanar420(src.planes[0], src.strides[0], src.planes[1], src.strides[1], src.planes[2],
                        src.strides[2], src.widths[0], src.heights[0], dst.planes[0],
                        dst.strides[0], dst.planes[1], dst.strides[1], dst.planes[2],
                        dst.strides[2], dst.widths[0], dst.heights[0], filter);
}

int32_t scaleGray(const ImageDesc& src, const ImageDesc& dst, ScaleFilter filter) {
  return scaleSinglePlane(src.planes[0], src.strides[0], src.widths[0], src.heights[0],
                          dst.planes[0], dst.strides[0], dst.widths[0], dst.heights[0], filter);
}

template <int32_t bytesPerPixel>
int32_t scalePackedPixels(const ImageDesc& src, const ImageDesc& dst, ScaleFilter filter) {
  return scalePacked(src.planes[0], src.strides[0], src.widths[0], src.heights[0], dst.planes[0],
                     dst.strides[0], dst.widths[0], dst.heights[0], bytesPerPixel, filter);
}

struct FormatRow {
  int32_t bytesPerPixel = 0;  // in plane 0
  Scaler* scale = nullptr;    // null: nothing to do
  bool hasChroma = false;
};

constexpr FormatRow formats[] = {
    {4, scalePackedPixels<4>},  // Packed32
    {4, scalePackedPixels<4>},  // Packed32Second
    {4, scalePackedPixels<4>},  // Packed32Third
    {4, scalePackedPixels<4>},  // Packed32Fourth
    {3, scalePackedPixels<3>},  // Packed24
    {3, scalePackedPixels<3>},  // Bgr24
    {1, scaleI420, true},       // I420
    {},                         // 7
    {},                         // 8
    {1, scaleGray},             // Gray8
};

// ---- Cropping

bool isInside(const CropRect& rect, const ImageDesc& image) {
  return rect.x >= 0 && rect.y >= 0 && rect.width >= 0 && rect.height >= 0 &&
         int64_t{rect.x} + rect.width <= image.widths[0] &&
         int64_t{rect.y} + rect.height <= image.heights[0];
}

// A missing plane stays missing, for the scaler to refuse.
uint8_t* sampleAddress(const ImageDesc& image, int32_t plane, ptrdiff_t byteX, ptrdiff_t y) {
  uint8_t* start = image.planes[plane];
  return start == nullptr ? nullptr : start + y * image.strides[plane] + byteX;
}

// The chroma of a crop. With an even image size and an odd origin and size, its last column or row
// lies one beyond the plane: such a crop is copied, with the plane's edge repeated.
class ChromaCrop {
 public:
  ChromaCrop(const ImageDesc& image, const CropRect& rect)
      : image_(image),
        planeWidth_(chromaSize(image.widths[0])),
        planeHeight_(chromaSize(image.heights[0])),
        x_(chromaSize(rect.x)),
        y_(chromaSize(rect.y)),
        width_(chromaSize(rect.width)),
        height_(chromaSize(rect.height)) {}

  // False if there is no memory for a copy.
  bool apply(ImageDesc& cropped, int32_t plane) {
    if (image_.planes[plane] == nullptr)
      return true;
    if (x_ + width_ <= planeWidth_ && y_ + height_ <= planeHeight_) {
      cropped.planes[plane] = sampleAddress(image_, plane, x_, y_);
      return true;
    }
    WorkRow& copy = copies_[plane - 1];
    if (!copy.allocate(int64_t{width_} * height_))
      return false;
    uint8_t* target = copy.samples();
    for (int32_t y = y_; y < y_ + height_; ++y) {
      const uint8_t* row = sampleAddress(image_, plane, 0, std::min(y, planeHeight_ - 1));
      for (int32_t x = x_; x < x_ + width_; ++x)
        *target++ = row[std::min(x, planeWidth_ - 1)];
    }
    cropped.planes[plane] = copy.samples();
    cropped.strides[plane] = width_;
    return true;
  }

 private:
  const ImageDesc& image_;
  int32_t planeWidth_, planeHeight_;
  int32_t x_, y_, width_, height_;
  WorkRow copies_[2];
};

// ---- Conversion, by operation

using Converter = int32_t(const ImageDesc& src, const ImageDesc& dst);

enum class FirstColour { blue, red };

// The table with red first is the other one with U and V exchanged.
template <FirstColour firstColour, PackMode packMode>
int32_t i420ToPacked(const ImageDesc& src, const ImageDesc& dst) {
  constexpr int32_t u = firstColour == FirstColour::blue ? 1 : 2;
  constexpr int32_t v = firstColour == FirstColour::blue ? 2 : 1;
  const YuvTable& table = firstColour == FirstColour::blue ? YuvTableBgr : YuvTableRgb;
  return convertI420ToPacked(src.planes[0], src.strides[0], src.planes[u], src.strides[u],
                             src.planes[v], src.strides[v], dst.planes[0], dst.strides[0], table,
                             src.widths[0], src.heights[0], packMode);
}

template <PackedOp op>
int32_t packedToPacked(const ImageDesc& src, const ImageDesc& dst) {
  return convertPacked(src.planes[0], src.strides[0], dst.planes[0], dst.strides[0], src.widths[0],
                       src.heights[0], op);
}

template <const PixelLayout& layout>
int32_t toLuma(const ImageDesc& src, const ImageDesc& dst) {
  return convertToLuma(src.planes[0], src.strides[0], dst.planes[0], dst.strides[0], src.widths[0],
                       src.heights[0], chooseLumaRow(src.widths[0], layout));
}

// This one operation has always given the bytes of 8-bit coefficients, at every width.
int32_t rgb24ToLuma(const ImageDesc& src, const ImageDesc& dst) {
  return convertToLuma(src.planes[0], src.strides[0], dst.planes[0], dst.strides[0], src.widths[0],
                       src.heights[0], chooseFineLumaRow(src.widths[0]));
}

template <const PixelLayout& layout>
int32_t toI420(const ImageDesc& src, const ImageDesc& dst) {
  return convertToI420(src.planes[0], src.strides[0], dst.planes[0], dst.strides[0], dst.planes[1],
                       dst.strides[1], dst.planes[2], dst.strides[2], src.widths[0], src.heights[0],
                       layout);
}

// Which of the three planes comes first among the pairs of the two-plane form.
enum class FirstChroma { u = 1, v = 2 };

template <FirstChroma firstChroma>
int32_t i420ToNv(const ImageDesc& src, const ImageDesc& dst) {
  constexpr auto first = static_cast<int32_t>(firstChroma);
  constexpr int32_t second = 3 - first;
  return convertI420ToNv(src.planes[0], src.strides[0], src.planes[first], src.strides[first],
                         src.planes[second], src.strides[second], dst.planes[0], dst.strides[0],
                         dst.planes[1], dst.strides[1], src.widths[0], src.heights[0]);
}

template <FirstChroma firstChroma>
int32_t nvToI420(const ImageDesc& src, const ImageDesc& dst) {
  constexpr auto first = static_cast<int32_t>(firstChroma);
  constexpr int32_t second = 3 - first;
  return convertNvToI420(src.planes[0], src.strides[0], src.planes[1], src.strides[1],
                         dst.planes[0], dst.strides[0], dst.planes[first], dst.strides[first],
                         dst.planes[second], dst.strides[second], src.widths[0], src.heights[0]);
}

constexpr Converter* converters[] = {
    packedToPacked<PackedOp::addOpaque>,                     // Packed24ToPacked32
    packedToPacked<PackedOp::dropLast>,                      // Packed32ToPacked24
    packedToPacked<PackedOp::addOpaqueSwapped>,              // Packed24ToPacked32Swapped
    nullptr,                                                 // 3
    nullptr,                                                 // 4
    nullptr,                                                 // 5
    toLuma<bgr24>,                                           // Bgr24ToLuma
    rgb24ToLuma,                                             // Rgb24ToLuma
    toLuma<bgra32>,                                          // Bgra32ToLuma
    toLuma<rgba32>,                                          // Rgba32ToLuma
    toI420<rgb24>,                                           // Rgb24ToI420
    toI420<bgr24>,                                           // Bgr24ToI420
    toI420<rgba32>,                                          // Rgba32ToI420
    toI420<bgra32>,                                          // Bgra32ToI420
    toI420<argb32>,                                          // Argb32ToI420
    toI420<abgr32>,                                          // Abgr32ToI420
    i420ToPacked<FirstColour::blue, PackMode::threeBytes>,   // I420ToBgr24
    i420ToPacked<FirstColour::red, PackMode::threeBytes>,    // I420ToRgb24
    i420ToPacked<FirstColour::blue, PackMode::fourBytes>,    // I420ToBgra32
    i420ToPacked<FirstColour::red, PackMode::fourBytes>,     // I420ToRgba32
    i420ToPacked<FirstColour::blue, PackMode::opaqueFirst>,  // I420ToAbgr32
    i420ToPacked<FirstColour::red, PackMode::opaqueFirst>,   // I420ToArgb32
    i420ToNv<FirstChroma::v>,                                // I420ToNv21
    i420ToNv<FirstChroma::u>,                                // I420ToNv12
    nvToI420<FirstChroma::u>,                                // Nv12ToI420
    nvToI420<FirstChroma::v>,                                // Nv21ToI420
};
static_assert(std::size(converters) == static_cast<size_t>(ColorOp::Nv21ToI420) + 1);

}  // namespace

int32_t scaleImage(const ImageDesc& src, const ImageDesc& dst, ScaleFilter filter) {
  const FormatRow* format = findRow(formats, src.format);
  return format == nullptr || format->scale == nullptr ? done : format->scale(src, dst, filter);
}

int32_t cropAndScaleImage(const ImageDesc& src, const ImageDesc& dst, const CropRect& rect,
                          ScaleFilter filter) {
  if (!isInside(rect, src))
    return refused;
  const FormatRow* format = findRow(formats, src.format);
  if (format == nullptr || format->scale == nullptr)
    return done;
  ImageDesc cropped = src;
  cropped.widths[0] = rect.width;
  cropped.heights[0] = rect.height;
  cropped.planes[0] = sampleAddress(src, 0, ptrdiff_t{rect.x} * format->bytesPerPixel, rect.y);
  ChromaCrop chroma(src, rect);
  if (format->hasChroma && !(chroma.apply(cropped, 1) && chroma.apply(cropped, 2)))
    return refused;
  return format->scale(cropped, dst, filter);
}

int32_t convertImage(const ImageDesc& src, const ImageDesc& dst, ColorOp op) {
  Converter* const* converter = findRow(converters, op);
  return converter == nullptr || *converter == nullptr ? done : (*converter)(src, dst);
}

}  // namespace TavroRTC::FDModule
