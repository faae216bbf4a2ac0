// The plain forms for packed pixels, channel by channel.

#include <cstring>

#include "image/each_column.h"
#include "image/row_forms.h"

namespace TavroRTC::FDModule {
namespace {

template <int32_t bytesPerPixel>
void samplePixels(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  forEachColumn(dstWidth, x, dx, [&](int32_t i, int64_t index, int32_t /*fraction*/) {
    std::memcpy(dst + ptrdiff_t{i} * bytesPerPixel, src + index * bytesPerPixel, bytesPerPixel);
  });
}

// blend(a, b, fraction) makes one byte out of the same byte of two neighbours.
template <int32_t bytesPerPixel, typename Blend>
void blendPixels(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx,
                 const Blend& blend) {
  forEachColumn(dstWidth, x, dx, [&](int32_t i, int64_t index, int32_t fraction) {
    const uint8_t* pixel = src + index * bytesPerPixel;
    uint8_t* target = dst + ptrdiff_t{i} * bytesPerPixel;
    for (int32_t byte = 0; byte < bytesPerPixel; ++byte)
      target[byte] =
          static_cast<uint8_t>(blend(pixel[byte], pixel[byte + bytesPerPixel], fraction));
  });
}

template <int32_t bytesPerPixel>
void keepSecondPixels(const uint8_t* src, uint8_t* dst, int32_t dstWidth) {
  for (ptrdiff_t i = 0; i < dstWidth; ++i)
    std::memcpy(dst + i * bytesPerPixel, src + (2 * i + 1) * bytesPerPixel, bytesPerPixel);
}

// mean(byte) makes one byte out of the bytes at and one pixel behind `byte`, an offset in the row.
template <int32_t bytesPerPixel, typename Mean>
void averagePixels(uint8_t* dst, int32_t dstWidth, const Mean& mean) {
  for (ptrdiff_t i = 0; i < dstWidth; ++i)
    for (ptrdiff_t byte = 0; byte < bytesPerPixel; ++byte)
      dst[i * bytesPerPixel + byte] = static_cast<uint8_t>(mean(2 * i * bytesPerPixel + byte));
}

template <int32_t bytesPerPixel>
void averageTwo(const uint8_t* src, uint8_t* dst, int32_t dstWidth) {
  averagePixels<bytesPerPixel>(dst, dstWidth, [&](ptrdiff_t byte) {
    return (src[byte] + src[byte + bytesPerPixel] + 1) >> 1;
  });
}

template <int32_t bytesPerPixel>
void averageFour(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, int32_t dstWidth) {
  const uint8_t* below = src + srcStride;
  averagePixels<bytesPerPixel>(dst, dstWidth, [&](ptrdiff_t byte) {
    const ptrdiff_t next = byte + bytesPerPixel;
    return (src[byte] + src[next] + below[byte] + below[next] + 2) >> 2;
  });
}

}  // namespace

void sampleColumns24(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  samplePixels<3>(dst, src, dstWidth, x, dx);
}

void sampleColumns32(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  samplePixels<4>(dst, src, dstWidth, x, dx);
}

namespace plain {

void filterColumns24(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  blendPixels<3>(dst, src, dstWidth, x, dx, [](int32_t a, int32_t b, int32_t fraction) {
    return a + ((b - a) * fraction >> 16);
  });
}

void filterColumns32(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  blendPixels<4>(dst, src, dstWidth, x, dx, [](int32_t a, int32_t b, int32_t fraction) {
    const int32_t f = fraction >> 9;
    return (a * (127 - f) + b * f) >> 7;
  });
}

void halveRowPoint24(const uint8_t* src, ptrdiff_t /*srcStride*/, uint8_t* dst, int32_t dstWidth) {
  keepSecondPixels<3>(src, dst, dstWidth);
}

void halveRowPoint32(const uint8_t* src, ptrdiff_t /*srcStride*/, uint8_t* dst, int32_t dstWidth) {
  keepSecondPixels<4>(src, dst, dstWidth);
}

void halveRowLinear24(const uint8_t* src, ptrdiff_t /*srcStride*/, uint8_t* dst, int32_t dstWidth) {
  averageTwo<3>(src, dst, dstWidth);
}

void halveRowLinear32(const uint8_t* src, ptrdiff_t /*srcStride*/, uint8_t* dst, int32_t dstWidth) {
  averageTwo<4>(src, dst, dstWidth);
}

void halveRowBox24(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, int32_t dstWidth) {
  averageFour<3>(src, srcStride, dst, dstWidth);
}

void halveRowBox32(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, int32_t dstWidth) {
  averageFour<4>(src, srcStride, dst, dstWidth);
}

}  // namespace plain
}  // namespace TavroRTC::FDModule
