#include "image/scale_geometry.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int64_t one = 0x10000;
constexpr int32_t halfSample = 0x8000;

int32_t wrapTo32(int64_t value) {
  return static_cast<int32_t>(value);
}

void centerAxis(int32_t src, int32_t dst, int32_t shift, int32_t& start, int32_t& step) {
  step = fixedRatio(src, dst);
  start = centerStart(step, shift);
}

void bilinearAxis(int32_t src, int32_t dst, int32_t& start, int32_t& step) {
  if (dst <= src) {
    centerAxis(src, dst, -halfSample, start, step);
  } else if (dst > 1) {
    step = fixedRatioLast(src, dst);
    start = 0;
  }
}

}  // namespace

int32_t fixedRatio(int32_t a, int32_t b) {
  return wrapTo32(a * one / b);
}

int32_t fixedRatioLast(int32_t a, int32_t b) {
  return wrapTo32((a * one - (one + 1)) / (int64_t{b} - 1));
}

int32_t centerStart(int32_t step, int32_t shift) {
  if (step >= 0)
    return (step >> 1) + shift;
  // The wrapped ratio is its own negative in 32 bits, and half of it is the wanted start's
  // negative.
  const int32_t negated = wrapTo32(-int64_t{step});
  return -((negated >> 1) + shift);
}

void computeScaleSlopes(int32_t srcWidth, int32_t srcHeight, int32_t dstWidth, int32_t dstHeight,
                        ScaleFilter filter, int32_t& x, int32_t& y, int32_t& dx, int32_t& dy) {
  if (filter == ScaleFilter::Bilinear) {
    bilinearAxis(srcWidth, dstWidth, x, dx);
    bilinearAxis(srcHeight, dstHeight, y, dy);
  } else {
    centerAxis(srcWidth, dstWidth, 0, x, dx);
    centerAxis(srcHeight, dstHeight, 0, y, dy);
  }
}

}  // namespace TavroRTC::FDModule
