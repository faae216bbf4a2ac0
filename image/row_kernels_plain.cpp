// The plain forms: what each kernel computes, sample by sample. Those for packed pixels are in
// packed_row_kernels_plain.cpp.

#include <algorithm>
#include <cstring>

#include "image/each_column.h"
#include "image/row_forms.h"

namespace TavroRTC::FDModule {
namespace {

uint8_t clampToByte(int32_t value) {
  return static_cast<uint8_t>(std::clamp(value, 0, 255));
}

template <int32_t bytesPerPixel, int32_t firstColour>
void yuvRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
            const YuvTable& constants, int32_t width) {
  for (int32_t i = 0; i < width; ++i, dst += bytesPerPixel) {
    const int32_t y1 = y[i] * constants.yGain[0] * 257 >> 16;
    const auto colour = [&](const int8_t* pair, const int16_t* bias) {
      return clampToByte((bias[0] - (pair[0] * u[i / 2] + pair[1] * v[i / 2]) + y1) >> 6);
    };
    if constexpr (bytesPerPixel == 4)
      dst[firstColour == 0 ? 3 : 0] = 255;
    dst[firstColour] = colour(constants.first, constants.firstBias);
    dst[firstColour + 1] = colour(constants.second, constants.secondBias);
    dst[firstColour + 2] = colour(constants.third, constants.thirdBias);
  }
}

}  // namespace

void copyRow(const uint8_t* src, uint8_t* dst, int32_t bytes) {
  if (bytes > 0)
    std::memcpy(dst, src, static_cast<size_t>(bytes));
}

void sampleColumns(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  forEachColumn(dstWidth, x, dx,
                [&](int32_t i, int64_t index, int32_t /*fraction*/) { dst[i] = src[index]; });
}

void doubleColumns(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t /*x*/,
                   int32_t /*dx*/) {
  for (int32_t i = 0; i < dstWidth; ++i)
    dst[i] = src[i / 2];
}

namespace plain {

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

void yuvRowFourBytes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                     const YuvTable& constants, int32_t width) {
  yuvRow<4, 0>(y, u, v, dst, constants, width);
}

void yuvRowOpaqueFirst(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                       const YuvTable& constants, int32_t width) {
  yuvRow<4, 1>(y, u, v, dst, constants, width);
}

void yuvRowThreeBytes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                      const YuvTable& constants, int32_t width) {
  yuvRow<3, 0>(y, u, v, dst, constants, width);
}

}  // namespace plain
}  // namespace TavroRTC::FDModule
