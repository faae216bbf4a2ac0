#pragma once

// Taps: the dense and grouped kernels that round multiply and add separately. All of them walk the
// taps of a kernel row as runs of neighbouring input values: each value is spread over the vectors
// of a block of output channels. They differ in how long such a run is, in the block, and in
// whether the bias needs a padded copy.
//
// Order of the sums: bias, then ky, kx, input channel.

#include "engine/simd/conv_kernels.h"
#include "engine/simd/conv_zones.h"
#include "engine/simd/vectors.h"

namespace TavroRTC::FDModule::simd {
namespace {

enum class Taps {
  adjacent,  // dilation 1: the taps of a kernel row lie side by side, so a row is a single run
  spaced,    // each tap is a run of its own
};

enum class Bias { inPlace, paddedCopy };

// Each pixel's sum += input[pixel][i] * weights[i], for `count` values of i in rising order, which
// `load` brings in for a group of pixels.
template <int count, typename Vector, int block, int pixels, typename Load>
inline void addTerms(Sums<Vector, block, pixels>& sums, const float* weights, Load load) {
  using Step = Sums<Vector, block, pixels>;
  Vector weight[count][Step::vectors];
  for (int i = 0; i < count; ++i)
    for (int v = 0; v < Step::vectors; ++v)
      weight[i][v] = Vector::load(weights + i * block + v * Vector::lanes);
  unrolled<Step::groups>([&](int group) __attribute__((always_inline)) {
    Vector value[count];
    load(group, value);
    for (int i = 0; i < count; ++i)
      for (int v = 0; v < Step::vectors; ++v)
        sums.at[group][v] = multiplyAdd(value[i], weight[i][v], sums.at[group][v]);
  });
}

// The same for `length` values. Vectors of several pixels take four values of each pixel at a time,
// which is quicker than one by one.
template <typename Vector, int block, int pixels>
inline void accumulateRun(Sums<Vector, block, pixels>& sums, const float* input,
                          ptrdiff_t pixelStride, const float* weights, int32_t length) {
  const ptrdiff_t groupStride = Vector::pixels * pixelStride;
  int32_t i = 0;
  if constexpr (Vector::pixels > 1)
    for (; i + 4 <= length; i += 4, weights += 4 * block)
      addTerms<4>(sums, weights, [&](int group, Vector(&value)[4]) {
        Vector::loadFour(value, input + group * groupStride + i, pixelStride);
      });
  for (; i < length; ++i, weights += block)
    addTerms<1>(sums, weights, [&](int group, Vector(&value)[1]) {
      value[0] = Vector::broadcast(input + group * groupStride + i, pixelStride);
    });
}

// All channels of `pixels` neighbouring output pixels, the first at y, x.
template <typename Vector, int block, int pixels, Taps taps>
void computePixels(const ConvProblem& p, const float* bias, int32_t y, int32_t x, TapRange rows,
                   TapRange columns) {
  const int32_t groupInputs = p.inputC / p.group;
  const int32_t groupOutputs = p.outputC / p.group;
  const ptrdiff_t pixelStride = static_cast<ptrdiff_t>(p.strideW) * p.inputC;
  const ptrdiff_t tapStride = static_cast<ptrdiff_t>(p.dilationW) * p.inputC;
  const ptrdiff_t weightTap = static_cast<ptrdiff_t>(groupInputs) * block;
  const int32_t top = y * p.strideH - p.padTop;
  const int32_t left = x * p.strideW - p.padLeft + columns.begin * p.dilationW;
  float* output = p.output + (static_cast<ptrdiff_t>(y) * p.outputW + x) * p.outputC;

  for (int32_t group = 0; group < p.group; ++group) {
    const int32_t groupBlocks = blockCount(block, groupOutputs);
    for (int32_t index = 0; index < groupBlocks; ++index) {
      const int32_t channel = group * groupOutputs + blockStart(index, block, groupOutputs);
      Sums<Vector, block, pixels> sums;
      sums.start(bias != nullptr ? bias + channel : nullptr);
      for (int32_t ky = rows.begin; ky < rows.end; ++ky) {
        const int32_t inputY = top + ky * p.dilationH;
        const float* input = p.input +
                             (static_cast<ptrdiff_t>(inputY) * p.inputW + left) * p.inputC +
                             group * groupInputs;
        const float* weights =
            p.weights +
            ((static_cast<ptrdiff_t>(group * groupBlocks + index) * p.kernelH + ky) * p.kernelW +
             columns.begin) *
                weightTap;
        if constexpr (taps == Taps::adjacent) {
          accumulateRun(sums, input, pixelStride, weights,
                        (columns.end - columns.begin) * groupInputs);
        } else {
          for (int32_t kx = columns.begin; kx < columns.end; ++kx) {
            accumulateRun(sums, input, pixelStride, weights, groupInputs);
            input += tapStride;
            weights += weightTap;
          }
        }
      }
      sums.store(output + channel, p.outputC, p.activation);
    }
  }
}

// Tiles of `tile` pixels; a single pixel has the same sums whatever its vector.
template <typename Vector, int block, int tile, Taps taps, Bias biasForm>
bool runKernel(const ConvProblem& p) {
  AlignedBuffer<float> copy;
  const float* bias = p.bias;
  if constexpr (biasForm == Bias::paddedCopy) {
    copy = paddedBias(p, block);
    if (copy == nullptr)
      return false;
    bias = copy.get();
  }
  forEachZone<tile>(
      p,
      [&](int32_t y, int32_t x, TapRange rows, TapRange columns) {
        computePixels<Float4, block, 1, Taps::spaced>(p, bias, y, x, rows, columns);
      },
      [&](int32_t y, int32_t x, TapRange rows, TapRange columns) {
        computePixels<Vector, block, tile, taps>(p, bias, y, x, rows, columns);
      });
  return true;
}

}  // namespace
}  // namespace TavroRTC::FDModule::simd
