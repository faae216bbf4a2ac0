// The dense and grouped 128-bit kernels. All of them walk the taps of a kernel row as runs of
// neighbouring input values: each value is broadcast to the vectors of a block of output channels.
// They differ in how long such a run is, in the block, and in whether the bias needs a padded copy.

#include "engine/simd/conv_kernels.h"
#include "engine/simd/conv_zones.h"
#include "engine/simd/vectors.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::simd {
namespace {

constexpr int32_t tile = 4;

enum class Taps {
  adjacent,  // dilation 1: the taps of a kernel row lie side by side, so a row is a single run
  spaced,    // each tap is a run of its own
};

enum class Bias { inPlace, paddedCopy };

// Each pixel's sum += input[pixel][i] * weights[i], for i in rising order.
template <int block, int pixels>
void accumulateRun(Sums<Float4, block, pixels>& sums, const float* input, ptrdiff_t pixelStride,
                   const float* weights, int32_t length) {
  constexpr int vectors = Sums<Float4, block, pixels>::vectors;
  for (int32_t i = 0; i < length; ++i, weights += block) {
    for (int pixel = 0; pixel < pixels; ++pixel) {
      const Float4 value = Float4::broadcast(input + pixel * pixelStride + i);
      for (int v = 0; v < vectors; ++v)
        sums.at[pixel][v] =
            multiplyAdd(value, Float4::load(weights + v * Float4::lanes), sums.at[pixel][v]);
    }
  }
}

// All channels of `pixels` neighbouring output pixels, the first at y, x.
template <int block, int pixels, Taps taps>
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
      Sums<Float4, block, pixels> sums;
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

template <int block, Taps taps, Bias biasForm>
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
        computePixels<block, 1, Taps::spaced>(p, bias, y, x, rows, columns);
      },
      [&](int32_t y, int32_t x, TapRange rows, TapRange columns) {
        computePixels<block, tile, taps>(p, bias, y, x, rows, columns);
      });
  return true;
}

// A lone short block writes its spare lanes onto the pixels behind; memory for that is there (64
// bytes) for any block up to 16 lanes. Reading the bias in place needs a whole block of channels.
bool serves1x1(const ConvProblem& p, int32_t block) {
  return p.group == 1 && p.isKernel(1, 1) && !p.isPadded() && p.outputC >= block;
}
bool servesDirect(const ConvProblem& p) {
  return p.group == 1 && !p.isDilated();
}
bool servesDilated(const ConvProblem& p) {
  return p.group == 1;
}
template <int block>
bool servesGroups(const ConvProblem& p) {
  return p.outputC / p.group % block == 0;
}

}  // namespace

constinit const ConvKernel convSse1x1_8x4 = {"convSse1x1_8x4",
                                             layout::block8,
                                             fusesReluFamily,
                                             ConvInput::floats,
                                             [](const ConvProblem& p) { return serves1x1(p, 8); },
                                             runKernel<8, Taps::adjacent, Bias::inPlace>};
constinit const ConvKernel convSse1x1_4x4 = {"convSse1x1_4x4",
                                             layout::block4,
                                             fusesReluFamily,
                                             ConvInput::floats,
                                             [](const ConvProblem& p) { return serves1x1(p, 4); },
                                             runKernel<4, Taps::adjacent, Bias::inPlace>};

constinit const ConvKernel convSseDirect_8x4 = {
    "convSseDirect_8x4", layout::block8, fusesReluFamily,
    ConvInput::floats,   servesDirect,   runKernel<8, Taps::adjacent, Bias::paddedCopy>};
constinit const ConvKernel convSseDirect_4x4 = {
    "convSseDirect_4x4", layout::block4, fusesReluFamily,
    ConvInput::floats,   servesDirect,   runKernel<4, Taps::adjacent, Bias::paddedCopy>};

constinit const ConvKernel convSseDilated_8x4 = {
    "convSseDilated_8x4", layout::block8, fusesReluFamily,
    ConvInput::floats,    servesDilated,  runKernel<8, Taps::spaced, Bias::paddedCopy>};
constinit const ConvKernel convSseDilated_4x4 = {
    "convSseDilated_4x4", layout::block4, fusesReluFamily,
    ConvInput::floats,    servesDilated,  runKernel<4, Taps::spaced, Bias::paddedCopy>};

constinit const ConvKernel groupConvSse_8x4 = {
    "groupConvSse_8x4", layout::block8,  fusesReluFamily,
    ConvInput::floats,  servesGroups<8>, runKernel<8, Taps::spaced, Bias::paddedCopy>};
constinit const ConvKernel groupConvSse_4x4 = {
    "groupConvSse_4x4", layout::block4,  fusesReluFamily,
    ConvInput::floats,  servesGroups<4>, runKernel<4, Taps::spaced, Bias::paddedCopy>};

}  // namespace TavroRTC::FDModule::simd
