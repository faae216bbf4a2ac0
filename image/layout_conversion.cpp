#include "image/layout_conversion.h"

#include <limits>

#include "image/plane_scaler.h"
#include "image/scale_geometry.h"

namespace TavroRTC::FDModule {
namespace {

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

int32_t convertPacked(const uint8_t* src, int32_t srcStride, uint8_t* dst, int32_t dstStride,
                      int32_t width, int32_t height, PackedOp op) {
  if (src == nullptr || dst == nullptr || width < 1 || height < 1)
    return -1;
  const int64_t srcBytes = op == PackedOp::dropLast ? 4 : 3;
  const int64_t dstBytes = op == PackedOp::dropLast ? 3 : 4;
  const RowRun run(width, height, srcStride == width * srcBytes && dstStride == width * dstBytes);
  PackedRow* convertRow = choosePackedRow(run.width, op);
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
  MergeChromaRow* mergeRow = chooseMergeChromaRow(run.width);
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
  SplitChromaRow* splitRow = chooseSplitChromaRow(run.width);
  for (ptrdiff_t y = 0; y < run.rows; ++y)
    splitRow(srcChroma + y * srcStrideChroma, dstU + y * dstStrideU, dstV + y * dstStrideV,
             run.width);
  return 0;
}

}  // namespace TavroRTC::FDModule
