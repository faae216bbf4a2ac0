// The 128-bit kernels for one filter a channel (as many groups as output channels). The vector runs
// over channels of input and output together, so a tap is a vector of inputs times a vector of
// weights.

#include "engine/simd/conv_kernels.h"
#include "engine/simd/conv_zones.h"
#include "engine/simd/vectors.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::simd {
namespace {

constexpr int32_t tile = 4;

template <int block, int pixels>
void computePixels(const ConvProblem& p, int32_t y, int32_t x, TapRange rows, TapRange columns) {
  constexpr int vectors = Sums<Float4, block, pixels>::vectors;
  const ptrdiff_t channels = p.outputC;
  const ptrdiff_t pixelStride = p.strideW * channels;
  const int32_t top = y * p.strideH - p.padTop;
  const int32_t left = x * p.strideW - p.padLeft;
  float* output = p.output + (static_cast<ptrdiff_t>(y) * p.outputW + x) * channels;
  const float* weights = p.weights;
  const ptrdiff_t blockWeights = static_cast<ptrdiff_t>(p.kernelH) * p.kernelW * block;

  for (ptrdiff_t channel = 0; channel < channels; channel += block, weights += blockWeights) {
    Sums<Float4, block, pixels> sums;
    sums.start(p.bias != nullptr ? p.bias + channel : nullptr);
    for (int32_t ky = rows.begin; ky < rows.end; ++ky) {
      const float* row =
          p.input + (static_cast<ptrdiff_t>(top + ky) * p.inputW + left) * channels + channel;
      for (int32_t kx = columns.begin; kx < columns.end; ++kx) {
        const float* input = row + kx * channels;
        const float* filter = weights + (ky * p.kernelW + kx) * block;
        for (int v = 0; v < vectors; ++v) {
          const Float4 weight = Float4::load(filter + v * Float4::lanes);
          for (int pixel = 0; pixel < pixels; ++pixel)
            sums.at[pixel][v] =
                multiplyAdd(Float4::load(input + pixel * pixelStride + v * Float4::lanes), weight,
                            sums.at[pixel][v]);
        }
      }
    }
    sums.store(output + channel, channels, p.activation);
  }
}

template <int block>
bool runKernel(const ConvProblem& p) {
  forEachZone<tile>(
      p,
      [&](int32_t y, int32_t x, TapRange rows, TapRange columns) {
        computePixels<block, 1>(p, y, x, rows, columns);
      },
      [&](int32_t y, int32_t x, TapRange rows, TapRange columns) {
        computePixels<block, tile>(p, y, x, rows, columns);
      });
  return true;
}

bool runScalar(const ConvProblem& p) {
  const ptrdiff_t channels = p.outputC;
  float* output = p.output;
  for (int32_t y = 0; y < p.outputH; ++y) {
    const TapRange rows = rowTaps(p, y);
    for (int32_t x = 0; x < p.outputW; ++x) {
      const TapRange columns = columnTaps(p, x);
      for (ptrdiff_t channel = 0; channel < channels; ++channel) {
        float sum = p.bias != nullptr ? p.bias[channel] : 0.0F;
        for (int32_t ky = rows.begin; ky < rows.end; ++ky) {
          for (int32_t kx = columns.begin; kx < columns.end; ++kx) {
            const ptrdiff_t inputY = y * p.strideH - p.padTop + ky;
            const ptrdiff_t inputX = x * p.strideW - p.padLeft + kx;
            sum += p.input[(inputY * p.inputW + inputX) * channels + channel] *
                   p.weights[(ky * p.kernelW + kx) * channels + channel];
          }
        }
        *output++ = sum;
      }
    }
  }
  return true;
}

bool servesDepthwise(const ConvProblem& p) {
  return p.group == p.outputC && p.inputC == p.outputC && !p.isDilated();
}
template <int block>
bool servesBlocks(const ConvProblem& p) {
  return servesDepthwise(p) && p.outputC % block == 0;
}

}  // namespace

constinit const ConvKernel dwConvSse_8x4 = {"dwConvSse_8x4",   layout::block8,  fusesReluFamily,
                                            ConvInput::floats, servesBlocks<8>, runKernel<8>};
constinit const ConvKernel dwConvSse_4x4 = {"dwConvSse_4x4",   layout::block4,  fusesReluFamily,
                                            ConvInput::floats, servesBlocks<4>, runKernel<4>};
constinit const ConvKernel dwConvSseScalar = {"dwConvSseScalar", layout::allLanes, fusesNone,
                                              ConvInput::floats, servesDepthwise,  runScalar};

}  // namespace TavroRTC::FDModule::simd
