// convSseSingle: one output channel, where the vector runs along the input values of a kernel row
// because there are no neighbouring output channels. Its sum is taken in lanes: the scalar part
// begins with the bias and takes what doesn't fill a vector; lanes 0 to 3 are added at the end.
//
// convSseScalar: plain loops. It takes every geometry and is where every selection can end.

#include "engine/simd/conv_kernels.h"
#include "engine/simd/conv_zones.h"
#include "engine/simd/vectors.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::simd {
namespace {

constexpr int32_t tile = 4;

float addLanes(float sum, Float4 lanes) {
  float values[Float4::lanes];
  lanes.store(values);
  for (const float value : values)
    sum += value;
  return sum;
}

void singleTile(const ConvProblem& p, int32_t y, int32_t x, TapRange rows) {
  const ptrdiff_t pixelStride = static_cast<ptrdiff_t>(p.strideW) * p.inputC;
  const int32_t span = p.kernelW * p.inputC;
  Float4 lanes[tile];
  float sums[tile];
  for (int pixel = 0; pixel < tile; ++pixel) {
    lanes[pixel] = Float4::zero();
    sums[pixel] = p.bias != nullptr ? p.bias[0] : 0.0F;
  }
  for (int32_t ky = rows.begin; ky < rows.end; ++ky) {
    const ptrdiff_t inputY = y * p.strideH - p.padTop + ky;
    const ptrdiff_t inputX = x * p.strideW - p.padLeft;
    const float* input = p.input + (inputY * p.inputW + inputX) * p.inputC;
    const float* weights = p.weights + static_cast<ptrdiff_t>(ky) * span;
    int32_t i = 0;
    for (; i + Float4::lanes <= span; i += Float4::lanes) {
      const Float4 weight = Float4::load(weights + i);
      for (int pixel = 0; pixel < tile; ++pixel)
        lanes[pixel] =
            multiplyAdd(Float4::load(input + pixel * pixelStride + i), weight, lanes[pixel]);
    }
    for (; i < span; ++i)
      for (int pixel = 0; pixel < tile; ++pixel)
        sums[pixel] += input[pixel * pixelStride + i] * weights[i];
  }
  float* output = p.output + static_cast<ptrdiff_t>(y) * p.outputW + x;
  for (int pixel = 0; pixel < tile; ++pixel)
    output[pixel] = addLanes(sums[pixel], lanes[pixel]);
}

// One output value by plain loops. The weights stand as output channel, ky, kx, input channel.
float plainSum(const ConvProblem& p, int32_t y, int32_t x, int32_t channel, TapRange rows,
               TapRange columns) {
  float sum = p.bias != nullptr ? p.bias[channel] : 0.0F;
  for (int32_t ky = rows.begin; ky < rows.end; ++ky) {
    for (int32_t kx = columns.begin; kx < columns.end; ++kx) {
      const ptrdiff_t inputY = y * p.strideH - p.padTop + ky * p.dilationH;
      const ptrdiff_t inputX = x * p.strideW - p.padLeft + kx * p.dilationW;
      const float* input = p.input + (inputY * p.inputW + inputX) * p.inputC;
      const float* weights =
          p.weights +
          ((static_cast<ptrdiff_t>(channel) * p.kernelH + ky) * p.kernelW + kx) * p.inputC;
      for (int32_t i = 0; i < p.inputC; ++i)
        sum += input[i] * weights[i];
    }
  }
  return sum;
}

bool runSingle(const ConvProblem& p) {
  forEachZone<tile>(
      p,
      [&](int32_t y, int32_t x, TapRange rows, TapRange columns) {
        p.output[static_cast<ptrdiff_t>(y) * p.outputW + x] = plainSum(p, y, x, 0, rows, columns);
      },
      [&](int32_t y, int32_t x, TapRange rows, TapRange) { singleTile(p, y, x, rows); });
  return true;
}

bool runScalar(const ConvProblem& p) {
  float* output = p.output;
  for (int32_t y = 0; y < p.outputH; ++y)
    for (int32_t x = 0; x < p.outputW; ++x)
      for (int32_t channel = 0; channel < p.outputC; ++channel)
        *output++ = plainSum(p, y, x, channel, rowTaps(p, y), columnTaps(p, x));
  return true;
}

}  // namespace

constinit const ConvKernel convSseSingle = {
    "convSseSingle",
    layout::channelsLast,
    fusesNone,
    ConvInput::floats,
    [](const ConvProblem& p) { return p.group == 1 && p.outputC == 1 && !p.isDilated(); },
    runSingle};

constinit const ConvKernel convSseScalar = {"convSseScalar",
                                            layout::channelsLast,
                                            fusesNone,
                                            ConvInput::floats,
                                            [](const ConvProblem& p) { return p.group == 1; },
                                            runScalar};

}  // namespace TavroRTC::FDModule::simd
