// Depthwise: 3x3, one filter a channel. The vector runs over channels of input and output together.
// A tile's weights of a kernel row stay in registers while its pixels take them in turn; border
// columns, where a tap may be outside, go pixel by pixel.
//
// Order of the sums: bias, then ky, kx. It is the same in both paths, so a pixel's value doesn't
// depend on the zone or on the kernel that computed it.

#include "engine/simd/conv_zones.h"
#include "impl_x86/avx_kernel_limits.h"
#include "impl_x86/avx_kernels.h"
#include "impl_x86/avx_vector.h"

namespace TavroRTC::FDModule::x86 {
namespace {

constexpr int block = 16;
using Vector = Float8;
template <int pixels>
using Step = Sums<Vector, block, pixels>;
constexpr int vectors = Step<1>::vectors;
constexpr int filterSize = 9 * block;

// One kernel row of one vector of channels, all three taps of all pixels. It goes by input columns:
// each is loaded once and serves every pixel that has a tap there, and a pixel still takes its taps
// from left to right.
template <int pixels, int strideW>
void addTileRow(Step<pixels>& sums, int v, const float* input, ptrdiff_t channels,
                const float* weights) {
  const Vector weight[3] = {Vector::load(weights), Vector::load(weights + block),
                            Vector::load(weights + 2 * block)};
  constexpr int columns = (pixels - 1) * strideW + 3;
  for (int column = 0; column < columns; ++column) {
    const Vector value = Vector::load(input + column * channels);
    for (int pixel = 0; pixel < pixels; ++pixel) {
      const int kx = column - pixel * strideW;
      if (kx >= 0 && kx < 3)
        sums.at[pixel][v] = multiplyAdd(value, weight[kx], sums.at[pixel][v]);
    }
  }
}

template <int pixels, int strideW>
void computeTile(const ConvProblem& p, int32_t y, int32_t x, TapRange rows) {
  const ptrdiff_t channels = p.outputC;
  const ptrdiff_t left = x * strideW - p.padLeft;
  float* output = p.output + (static_cast<ptrdiff_t>(y) * p.outputW + x) * channels;
  const float* filter = p.weights;
  for (ptrdiff_t channel = 0; channel < channels; channel += block, filter += filterSize) {
    Step<pixels> sums;
    sums.start(p.bias != nullptr ? p.bias + channel : nullptr);
    for (int32_t ky = rows.begin; ky < rows.end; ++ky) {
      const ptrdiff_t inputY = y * p.strideH - p.padTop + ky;
      const float* input = p.input + (inputY * p.inputW + left) * channels + channel;
      for (int v = 0; v < vectors; ++v)
        addTileRow<pixels, strideW>(sums, v, input + v * Vector::lanes, channels,
                                    filter + ky * 3 * block + v * Vector::lanes);
    }
    sums.store(output + channel, channels, wantsRelu(p));
  }
}

void computePixel(const ConvProblem& p, int32_t y, int32_t x, TapRange rows) {
  const TapRange columns = columnTaps(p, x);
  const ptrdiff_t channels = p.outputC;
  const ptrdiff_t left = x * p.strideW - p.padLeft;
  float* output = p.output + (static_cast<ptrdiff_t>(y) * p.outputW + x) * channels;
  const float* filter = p.weights;
  for (ptrdiff_t channel = 0; channel < channels; channel += block, filter += filterSize) {
    Step<1> sums;
    sums.start(p.bias != nullptr ? p.bias + channel : nullptr);
    for (int32_t ky = rows.begin; ky < rows.end; ++ky) {
      const ptrdiff_t inputY = y * p.strideH - p.padTop + ky;
      const float* row = p.input + (inputY * p.inputW + left) * channels + channel;
      for (int32_t kx = columns.begin; kx < columns.end; ++kx)
        for (int v = 0; v < vectors; ++v)
          sums.at[0][v] = multiplyAdd(
              Vector::load(row + kx * channels + v * Vector::lanes),
              Vector::load(filter + (ky * 3 + kx) * block + v * Vector::lanes), sums.at[0][v]);
    }
    sums.store(output + channel, channels, wantsRelu(p));
  }
}

template <int pixels, int strideW>
void runTiles(const ConvProblem& p) {
  const ColumnZones zones = columnZones(p, pixels);
  for (int32_t y = 0; y < p.outputH; ++y) {
    const TapRange rows = rowTaps(p, y);
    for (int32_t x = 0; x < zones.tileBegin; ++x)
      computePixel(p, y, x, rows);
    for (int32_t x = zones.tileBegin; x < zones.tileEnd; x += pixels)
      computeTile<pixels, strideW>(p, y, x, rows);
    for (int32_t x = zones.tileEnd; x < p.outputW; ++x)
      computePixel(p, y, x, rows);
  }
}

bool run16x4(const ConvProblem& p) {
  if (p.strideW == 1)
    runTiles<4, 1>(p);
  else
    runTiles<4, 2>(p);
  return true;
}

bool run16x5(const ConvProblem& p) {
  runTiles<5, 1>(p);
  return true;
}

bool serves16x4(const ConvProblem& p) {
  return p.isKernel(3, 3) && (p.strideW == 1 || p.strideW == 2) && !p.isDilated() &&
         p.group == p.outputC && p.inputC == p.outputC && p.outputC % block == 0;
}

bool serves16x5(const ConvProblem& p) {
  return serves16x4(p) && p.strideW == 1;
}

}  // namespace

constinit const ConvKernel dwConv3x3_16x4 = {"dwConv3x3_16x4",  layout::block16, fusesRelu,
                                             ConvInput::floats, serves16x4,      run16x4};
constinit const ConvKernel dwConv3x3s1_16x5 = {"dwConv3x3s1_16x5", layout::block16, fusesRelu,
                                               ConvInput::floats,  serves16x5,      run16x5};

}  // namespace TavroRTC::FDModule::x86
