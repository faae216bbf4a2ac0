#pragma once

// Pixel list: a 1x1 convolution has no geometry. It sees one list of pixels, and each output pixel
// is a matrix times the channels of its input pixel.
//
// A step computes `tile` pixels of `block` channels. It needs a register for each sum and for the
// broadcast value of each pixel, and one for weights, which are used up before the next are loaded:
// 32x3 fills sixteen registers of eight floats to the last, and 32x9 twenty-eight of sixteen.
//
// Order of the sums: bias, then the input channels in rising order.

#include "engine/simd/conv_zones.h"
#include "engine/simd/vectors.h"
#include "impl_x86/avx_kernels.h"

namespace TavroRTC::FDModule::x86 {
namespace {

template <typename Vector, int block, int tile>
void computeListPixels(const ConvProblem& p, const float* input, float* output) {
  using Step = Sums<Vector, block, tile>;
  const ptrdiff_t channels = p.inputC;
  const float* weights = p.weights;
  for (int32_t channel = 0; channel < p.outputC; channel += block) {
    Step sums;
    sums.start(p.bias != nullptr ? p.bias + channel : nullptr);
    for (ptrdiff_t i = 0; i < channels; ++i, weights += block) {
      Vector value[tile];
      const float* next = input + i;
      unrolled<tile>([&](int pixel) __attribute__((always_inline)) {
        value[pixel] = Vector::broadcast(next);
        next += channels;
      });
      for (int v = 0; v < Step::vectors; ++v) {
        const Vector weight = Vector::load(weights + v * Vector::lanes);
        unrolled<tile>([&](int pixel) __attribute__((always_inline)) {
          sums.at[pixel][v] = multiplyAdd(value[pixel], weight, sums.at[pixel][v]);
        });
      }
    }
    sums.store(output + channel, p.outputC, p.activation);
  }
}

template <typename Vector, int block, int tile>
bool runPixelList(const ConvProblem& p) {
  const ptrdiff_t pixels = static_cast<ptrdiff_t>(p.outputH) * p.outputW;
  const ptrdiff_t inTiles = pixels / tile * tile;
  ptrdiff_t pixel = 0;
  for (; pixel < inTiles; pixel += tile)
    computeListPixels<Vector, block, tile>(p, p.input + pixel * p.inputC,
                                           p.output + pixel * p.outputC);
  for (; pixel < pixels; ++pixel)
    computeListPixels<Vector, block, 1>(p, p.input + pixel * p.inputC,
                                        p.output + pixel * p.outputC);
  return true;
}

template <int block>
bool servesPixelList(const ConvProblem& p) {
  return p.group == 1 && p.isKernel(1, 1) && p.isStride(1, 1) && !p.isPadded() &&
         fillsBlocks(p.outputC, block);
}

}  // namespace
}  // namespace TavroRTC::FDModule::x86
