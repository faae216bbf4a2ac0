#include "image/scaler.h"

#include <algorithm>
#include <cstddef>
#include <limits>

#include "image/row_kernels.h"
#include "image/scale_passes.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int64_t one = 0x10000;  // a whole sample in 16.16

bool isHalf(const SourceRows& src, const TargetRows& dst) {
  return src.width == int64_t{2} * dst.width && src.height == int64_t{2} * dst.height;
}

void halve(const SourceRows& src, const TargetRows& dst, ScaleFilter filter) {
  HalveKernel* halveRow = chooseHalveRow(dst.width, 1, filter);
  // Point sampling keeps the odd rows, as it does the odd columns.
  const int32_t firstRow = filter == ScaleFilter::Nearest ? 1 : 0;
  for (int32_t y = 0; y < dst.height; ++y)
    halveRow(src.row(2 * int64_t{y} + firstRow), src.stride, dst.row(y), dst.width);
}

bool areAccepted(int32_t srcWidth, int32_t srcHeight, int32_t dstWidth, int32_t dstHeight,
                 ScaleFilter filter) {
  const auto isSourceSize = [](int32_t size) { return size >= 1 && size <= largestSourceSize; };
  return isSourceSize(srcWidth) && isSourceSize(srcHeight) && dstWidth >= 1 && dstHeight >= 1 &&
         filter >= ScaleFilter::Nearest && filter <= ScaleFilter::Bilinear;
}

}  // namespace

int32_t scalePlanar420(const uint8_t* srcY, int32_t srcStrideY, const uint8_t* srcU,
                       int32_t srcStrideU, const uint8_t* srcV, int32_t srcStrideV,
                       int32_t srcWidth, int32_t srcHeight, uint8_t* dstY, int32_t dstStrideY,
                       uint8_t* dstU, int32_t dstStrideU, uint8_t* dstV, int32_t dstStrideV,
                       int32_t dstWidth, int32_t dstHeight, ScaleFilter filter) {
  if (srcY == nullptr || srcU == nullptr || srcV == nullptr || dstY == nullptr || dstU == nullptr ||
      dstV == nullptr || !areAccepted(srcWidth, srcHeight, dstWidth, dstHeight, filter))
    return -1;
  const int32_t srcChromaWidth = chromaSize(srcWidth);
  const int32_t srcChromaHeight = chromaSize(srcHeight);
  const int32_t dstChromaWidth = chromaSize(dstWidth);
  const int32_t dstChromaHeight = chromaSize(dstHeight);
  const bool scaled = scalePlane(srcY, srcStrideY, srcWidth, srcHeight, dstY, dstStrideY, dstWidth,
                                 dstHeight, filter) &&
                      scalePlane(srcU, srcStrideU, srcChromaWidth, srcChromaHeight, dstU,
                                 dstStrideU, dstChromaWidth, dstChromaHeight, filter) &&
                      scalePlane(srcV, srcStrideV, srcChromaWidth, srcChromaHeight, dstV,
                                 dstStrideV, dstChromaWidth, dstChromaHeight, filter);
  return scaled ? 0 : -1;
}

int32_t scaleSinglePlane(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight,
                         uint8_t* dst, int32_t dstStride, int32_t dstWidth, int32_t dstHeight,
                         ScaleFilter filter) {
  if (src == nullptr || dst == nullptr ||
      !areAccepted(srcWidth, srcHeight, dstWidth, dstHeight, filter))
    return -1;
  return scalePlane(src, srcStride, srcWidth, srcHeight, dst, dstStride, dstWidth, dstHeight,
                    filter)
             ? 0
             : -1;
}

bool scalePlane(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight,
                uint8_t* dst, int32_t dstStride, int32_t dstWidth, int32_t dstHeight,
                ScaleFilter filter) {
  const SourceRows source = {src, srcStride, srcWidth, srcHeight};
  const TargetRows target = {dst, dstStride, dstWidth, dstHeight};
  if (dstWidth == srcWidth && dstHeight == srcHeight) {
    copyPlane(src, srcStride, dst, dstStride, dstWidth, dstHeight);
    return true;
  }
  // Rows that go one to one have nothing to interpolate.
  if (filter == ScaleFilter::Bilinear && dstHeight == srcHeight)
    filter = ScaleFilter::Linear;
  if (dstWidth == srcWidth) {
    scaleVertical(srcHeight, dstWidth, dstHeight, srcStride, dstStride, src, dst, 0, 0,
                  fixedRatio(srcHeight, dstHeight), 1, filter);
    return true;
  }
  if (isHalf(source, target)) {
    halve(source, target, filter);
    return true;
  }
  const Slopes slopes(source, target, filter);
  if (filter == ScaleFilter::Nearest) {
    const bool isDouble = int64_t{2} * srcWidth == dstWidth;
    samplePoints(source, target, slopes, isDouble ? doubleColumns : sampleColumns);
    return true;
  }
  return dstHeight <= srcHeight ? reduce(source, target, slopes, 1, filter)
                                : enlarge(source, target, slopes, 1, filter);
}

void copyPlane(const uint8_t* src, int32_t srcStride, uint8_t* dst, int32_t dstStride,
               int32_t widthBytes, int32_t height) {
  if (src == dst && srcStride == dstStride)
    return;
  // Without gaps the plane is one long row, if its length can be counted.
  if (srcStride == widthBytes && dstStride == widthBytes &&
      int64_t{widthBytes} * height <= std::numeric_limits<int32_t>::max()) {
    widthBytes *= height;
    height = 1;
  }
  CopyKernel* copyRow = chooseCopyRow(widthBytes);
  for (ptrdiff_t y = 0; y < height; ++y)
    copyRow(src + y * srcStride, dst + y * dstStride, widthBytes);
}

void scaleVertical(int32_t srcHeight, int32_t dstWidth, int32_t dstHeight, int32_t srcStride,
                   int32_t dstStride, const uint8_t* src, uint8_t* dst, int32_t x, int32_t y,
                   int32_t dy, int32_t bytesPerPixel, ScaleFilter filter) {
  // Just below the last row, so that there always is a row below.
  const int64_t maxY = srcHeight > 1 ? (srcHeight - 1) * one - 1 : 0;
  const uint8_t* firstColumn = src + sampleIndex(x) * bytesPerPixel;
  InterpolateKernel* interpolateRows = chooseInterpolateRows(dstWidth, bytesPerPixel);
  int64_t position = y;
  for (ptrdiff_t i = 0; i < dstHeight; ++i, position += dy) {
    // The step of a single row stretched to two is -1.
    position = std::clamp<int64_t>(position, 0, maxY);
    const int32_t fraction = filter == ScaleFilter::Nearest ? 0 : rowFraction(position);
    interpolateRows(dst + i * dstStride, firstColumn + sampleIndex(position) * srcStride, srcStride,
                    dstWidth * bytesPerPixel, fraction);
  }
}

}  // namespace TavroRTC::FDModule
