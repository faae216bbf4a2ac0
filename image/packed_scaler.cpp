#include "image/scaler.h"

#include <cstddef>
#include <limits>

#include "image/row_kernels.h"
#include "image/scale_passes.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int32_t one = 0x10000;  // a whole pixel in 16.16

bool isWhole(int32_t position) {
  return position % one == 0;
}

bool isOdd(int32_t step) {
  return (step & one) != 0;
}

enum class Way { copy, rowsOnly, halving, pointSampling, reduction, enlargement };

// May turn the filter into a simpler one.
Way chooseWay(const Slopes& slopes, bool sameHeight, ScaleFilter& filter) {
  // Rows that go one to one have nothing to interpolate.
  if (filter == ScaleFilter::Bilinear && sameHeight)
    filter = ScaleFilter::Linear;
  if (isWhole(slopes.dx) && isWhole(slopes.dy)) {
    if (slopes.dx == 2 * one && !isOdd(slopes.dy))
      return Way::halving;
    if (isOdd(slopes.dx) && isOdd(slopes.dy)) {
      filter = ScaleFilter::Nearest;
      if (slopes.dx == one && slopes.dy == one)
        return Way::copy;
      if (slopes.dx != one)
        return Way::pointSampling;
    }
  }
  if (slopes.dx == one && isWhole(slopes.x))
    return Way::rowsOnly;
  if (filter == ScaleFilter::Nearest)
    return Way::pointSampling;
  return slopes.dy < one ? Way::enlargement : Way::reduction;
}

// The first position lies on the first pixel, or for filters that look at the middle of a step on
// the second one, which point sampling keeps: the row starts at its first pixel either way.
void halve(const SourceRows& src, const TargetRows& dst, const Slopes& slopes,
           int32_t bytesPerPixel, ScaleFilter filter) {
  HalveKernel* halveRow = chooseHalveRow(dst.width, bytesPerPixel, filter);
  // A single row, stretched in steps of 0, is its own lower neighbour.
  const ptrdiff_t toBelow = src.height > 1 ? src.stride : 0;
  int64_t y = slopes.y;
  for (int32_t i = 0; i < dst.height; ++i, y += slopes.dy)
    halveRow(src.row(sampleIndex(y)), toBelow, dst.row(i), dst.width);
}

bool areAccepted(const SourceRows& src, const TargetRows& dst, int32_t bytesPerPixel,
                 ScaleFilter filter) {
  const auto isSourceSize = [](int32_t size) {
    return size >= 1 && size <= largestPackedSourceSize;
  };
  return src.samples != nullptr && isSourceSize(src.width) && isSourceSize(src.height) &&
         dst.samples != nullptr && dst.width >= 1 && dst.height >= 1 &&
         (bytesPerPixel == 3 || bytesPerPixel == 4) &&
         dst.width <= std::numeric_limits<int32_t>::max() / bytesPerPixel &&
         filter >= ScaleFilter::Nearest && filter <= ScaleFilter::Bilinear;
}

}  // namespace

int32_t scalePacked(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight,
                    uint8_t* dst, int32_t dstStride, int32_t dstWidth, int32_t dstHeight,
                    int32_t bytesPerPixel, ScaleFilter filter) {
  const SourceRows source = {src, srcStride, srcWidth, srcHeight};
  const TargetRows target = {dst, dstStride, dstWidth, dstHeight};
  if (!areAccepted(source, target, bytesPerPixel, filter))
    return -1;
  // With the filter that was asked for, so that a simpler one starts where that one does.
  const Slopes slopes(source, target, filter);
  bool hasMemory = true;
  switch (chooseWay(slopes, srcHeight == dstHeight, filter)) {
    case Way::copy:
      copyPlane(src, srcStride, dst, dstStride, dstWidth * bytesPerPixel, dstHeight);
      break;
    case Way::rowsOnly:
      scaleVertical(srcHeight, dstWidth, dstHeight, srcStride, dstStride, src, dst, slopes.x,
                    slopes.y, slopes.dy, bytesPerPixel, filter);
      break;
    case Way::halving:
      halve(source, target, slopes, bytesPerPixel, filter);
      break;
    case Way::pointSampling:
      samplePoints(source, target, slopes, bytesPerPixel == 3 ? sampleColumns24 : sampleColumns32);
      break;
    case Way::reduction:
      hasMemory = reduce(source, target, slopes, bytesPerPixel, filter);
      break;
    case Way::enlargement:
      hasMemory = enlarge(source, target, slopes, bytesPerPixel, filter);
      break;
  }
  return hasMemory ? 0 : -1;
}

}  // namespace TavroRTC::FDModule
