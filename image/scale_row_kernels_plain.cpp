// The plain forms for scaling: what each kernel computes, sample by sample, or channel by channel
// where a pixel has several.

#include <cstring>

#include "image/row_forms.h"

namespace TavroRTC::FDModule {
namespace {

/// Calls filter(i, index, fraction) for the positions x + i * dx. Positions are summed up in 64
/// bits: the sum behind the last one may need more than 32.
template <typename Filter>
void forEachColumn(int32_t dstWidth, int32_t x, int32_t dx, const Filter& filter) {
  int64_t position = x;
  for (int32_t i = 0; i < dstWidth; ++i, position += dx)
    filter(i, position >> 16, static_cast<int32_t>(position & 0xFFFF));
}

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

void sampleColumns(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  forEachColumn(dstWidth, x, dx,
                [&](int32_t i, int64_t index, int32_t /*fraction*/) { dst[i] = src[index]; });
}

void sampleColumns24(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  samplePixels<3>(dst, src, dstWidth, x, dx);
}

void sampleColumns32(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  samplePixels<4>(dst, src, dstWidth, x, dx);
}

void doubleColumns(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t /*x*/,
                   int32_t /*dx*/) {
  for (int32_t i = 0; i < dstWidth; ++i)
    dst[i] = src[i / 2];
}

namespace plain {

void copyRow(const uint8_t* src, uint8_t* dst, int32_t bytes) {
  if (bytes > 0)
    std::memcpy(dst, src, static_cast<size_t>(bytes));
}

void interpolateRows(uint8_t* dst, const uint8_t* src, ptrdiff_t srcStride, int32_t bytes,
                     int32_t fraction) {
  if (fraction == 0) {
    copyRow(src, dst, bytes);
    return;
  }
  // With fraction 128 this is the rounded mean.
  const uint8_t* below = src + srcStride;
  for (int32_t i = 0; i < bytes; ++i)
    dst[i] = static_cast<uint8_t>((src[i] * (256 - fraction) + below[i] * fraction + 128) >> 8);
}

void filterColumns(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  forEachColumn(dstWidth, x, dx, [&](int32_t i, int64_t index, int32_t fraction) {
    const int32_t a = src[index];
    const int32_t b = src[index + 1];
    dst[i] = static_cast<uint8_t>(a + ((b - a) * fraction >> 16));
  });
}

void halveRowPoint(const uint8_t* src, ptrdiff_t /*srcStride*/, uint8_t* dst, int32_t dstWidth) {
  for (int32_t i = 0; i < dstWidth; ++i)
    dst[i] = src[2 * ptrdiff_t{i} + 1];
}

void halveRowLinear(const uint8_t* src, ptrdiff_t /*srcStride*/, uint8_t* dst, int32_t dstWidth) {
  for (int32_t i = 0; i < dstWidth; ++i, src += 2)
    dst[i] = static_cast<uint8_t>((src[0] + src[1] + 1) >> 1);
}

void halveRowBox(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, int32_t dstWidth) {
  const uint8_t* below = src + srcStride;
  for (int32_t i = 0; i < dstWidth; ++i, src += 2, below += 2)
    dst[i] = static_cast<uint8_t>((src[0] + src[1] + below[0] + below[1] + 2) >> 2);
}

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
