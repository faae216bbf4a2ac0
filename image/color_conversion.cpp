#include "image/color_conversion.h"

#include <cstddef>
#include <limits>

#include "image/scaler.h"

namespace TavroRTC::FDModule {
namespace {

struct ChromaPair {
  int8_t u;
  int8_t v;
};

// Blue's factor from U is 2.000 and not the standard's 2.018, for which 128 leaves no room: 129
// doesn't fit a signed byte.
constexpr ChromaPair blue = {-128, 0};
constexpr ChromaPair green = {25, 52};
constexpr ChromaPair red = {0, -102};

// 1.164 * 64 * 65536 / 257: the factor of y, which the kernels widen to 16 bits as y * 257.
constexpr int16_t yGain = 18997;
// 1.164 * 64 * -16, the black level, plus half a unit of the shift that ends the sum.
constexpr int16_t blackOffset = -1160;

constexpr ChromaPair swapped(ChromaPair pair) {
  return {pair.v, pair.u};
}

// Chroma is centred on 128.
constexpr int16_t biasOf(ChromaPair pair) {
  return static_cast<int16_t>(128 * (pair.u + pair.v) + blackOffset);
}

constexpr YuvTable makeTable(ChromaPair first, ChromaPair second, ChromaPair third) {
  YuvTable table = {};
  for (ptrdiff_t i = 0; i < YuvTable::copies; ++i) {
    table.first[2 * i] = first.u;
    table.first[2 * i + 1] = first.v;
    table.second[2 * i] = second.u;
    table.second[2 * i + 1] = second.v;
    table.third[2 * i] = third.u;
    table.third[2 * i + 1] = third.v;
    table.firstBias[i] = biasOf(first);
    table.secondBias[i] = biasOf(second);
    table.thirdBias[i] = biasOf(third);
    table.yGain[i] = yGain;
  }
  return table;
}

// Rows without gaps on either side are one long row.
struct RowRun {
  int32_t width;
  int32_t rows;

  RowRun(int32_t rowWidth, int32_t rowCount, bool isGapless) : width(rowWidth), rows(rowCount) {
    const int64_t all = int64_t{rowWidth} * rowCount;
    // Far enough from the limit for any number of bytes per pixel.
    if (isGapless && all <= std::numeric_limits<int32_t>::max() / 4) {
      width = static_cast<int32_t>(all);
      rows = 1;
    }
  }
};

}  // namespace

constinit const YuvTable YuvTableBgr = makeTable(blue, green, red);
constinit const YuvTable YuvTableRgb = makeTable(swapped(red), swapped(green), swapped(blue));

int32_t convertI420ToPacked(const uint8_t* srcY, int32_t strideY, const uint8_t* srcU,
                            int32_t strideU, const uint8_t* srcV, int32_t strideV, uint8_t* dst,
                            int32_t dstStride, const YuvTable& constants, int32_t width,
                            int32_t height, PackMode packMode) {
  YuvKernel* convertRow = chooseYuvRow(width, packMode);
  if (srcY == nullptr || srcU == nullptr || srcV == nullptr || dst == nullptr || width < 1 ||
      height < 1 || convertRow == nullptr)
    return -1;
  for (ptrdiff_t y = 0; y < height; ++y)
    convertRow(srcY + y * strideY, srcU + y / 2 * strideU, srcV + y / 2 * strideV,
               dst + y * dstStride, constants, width);
  return 0;
}

int32_t convertToLuma(const uint8_t* src, int32_t srcStride, uint8_t* dstY, int32_t dstStrideY,
                      int32_t width, int32_t height, LumaKernel* convertRow) {
  if (src == nullptr || dstY == nullptr || convertRow == nullptr || width < 1 || height < 1)
    return -1;
  for (ptrdiff_t y = 0; y < height; ++y)
    convertRow(src + y * srcStride, dstY + y * dstStrideY, width);
  return 0;
}

// Two rows share their chroma, and go through all kernels while they are in the cache; an odd last
// row is its own partner.
int32_t convertToI420(const uint8_t* src, int32_t srcStride, uint8_t* dstY, int32_t dstStrideY,
                      uint8_t* dstU, int32_t dstStrideU, uint8_t* dstV, int32_t dstStrideV,
                      int32_t width, int32_t height, const PixelLayout& layout) {
  LumaKernel* lumaRow = chooseLumaRow(width, layout);
  ChromaKernel* chromaRow = chooseChromaRow(width, layout);
  if (src == nullptr || dstY == nullptr || dstU == nullptr || dstV == nullptr || width < 1 ||
      height < 1 || lumaRow == nullptr || chromaRow == nullptr)
    return -1;
  for (ptrdiff_t y = 0; y < height; y += 2) {
    const bool isPair = y + 1 < height;
    const uint8_t* row = src + y * srcStride;
    chromaRow(row, isPair ? srcStride : 0, dstU + y / 2 * dstStrideU, dstV + y / 2 * dstStrideV,
              width);
    lumaRow(row, dstY + y * dstStrideY, width);
    if (isPair)
      lumaRow(row + srcStride, dstY + (y + 1) * dstStrideY, width);
  }
  return 0;
}

int32_t convertPacked(const uint8_t* src, int32_t srcStride, uint8_t* dst, int32_t dstStride,
                      int32_t width, int32_t height, PackedOp op) {
  if (src == nullptr || dst == nullptr || width < 1 || height < 1)
    return -1;
  const int64_t srcBytes = op == PackedOp::dropLast ? 4 : 3;
  const int64_t dstBytes = op == PackedOp::dropLast ? 3 : 4;
  const RowRun run(width, height, srcStride == width * srcBytes && dstStride == width * dstBytes);
  PackedKernel* convertRow = choosePackedRow(run.width, op);
  if (convertRow == nullptr)
    return -1;
  for (ptrdiff_t y = 0; y < run.rows; ++y)
    convertRow(src + y * srcStride, dst + y * dstStride, run.width);
  return 0;
}

int32_t convertI420ToNv(const uint8_t* srcY, int32_t srcStrideY, const uint8_t* srcU,
                        int32_t srcStrideU, const uint8_t* srcV, int32_t srcStrideV, uint8_t* dstY,
                        int32_t dstStrideY, uint8_t* dstChroma, int32_t dstStrideChroma,
                        int32_t width, int32_t height) {
  if (srcY == nullptr || srcU == nullptr || srcV == nullptr || dstY == nullptr ||
      dstChroma == nullptr || width < 1 || height < 1)
    return -1;
  copyPlane(srcY, srcStrideY, dstY, dstStrideY, width, height);
  const int32_t halfWidth = chromaSize(width);
  const RowRun run(halfWidth, chromaSize(height),
                   srcStrideU == halfWidth && srcStrideV == halfWidth &&
                       dstStrideChroma == int64_t{2} * halfWidth);
  MergeChromaKernel* mergeRow = chooseMergeChromaRow(run.width);
  for (ptrdiff_t y = 0; y < run.rows; ++y)
    mergeRow(srcU + y * srcStrideU, srcV + y * srcStrideV, dstChroma + y * dstStrideChroma,
             run.width);
  return 0;
}

int32_t convertNvToI420(const uint8_t* srcY, int32_t srcStrideY, const uint8_t* srcChroma,
                        int32_t srcStrideChroma, uint8_t* dstY, int32_t dstStrideY, uint8_t* dstU,
                        int32_t dstStrideU, uint8_t* dstV, int32_t dstStrideV, int32_t width,
                        int32_t height) {
  if (srcY == nullptr || srcChroma == nullptr || dstY == nullptr || dstU == nullptr ||
      dstV == nullptr || width < 1 || height < 1)
    return -1;
  copyPlane(srcY, srcStrideY, dstY, dstStrideY, width, height);
  const int32_t halfWidth = chromaSize(width);
  const RowRun run(halfWidth, chromaSize(height),
                   srcStrideChroma == int64_t{2} * halfWidth && dstStrideU == halfWidth &&
                       dstStrideV == halfWidth);
  SplitChromaKernel* splitRow = chooseSplitChromaRow(run.width);
  for (ptrdiff_t y = 0; y < run.rows; ++y)
    splitRow(srcChroma + y * srcStrideChroma, dstU + y * dstStrideU, dstV + y * dstStrideV,
             run.width);
  return 0;
}

}  // namespace TavroRTC::FDModule
