// Pixel list: a 1x1 convolution has no geometry. It sees one list of pixels, and each output pixel
// is a matrix times the channels of its input pixel.
//
// A step computes `tile` pixels of `block` channels. 32x3 fills the sixteen registers to the last:
// twelve sums, a broadcast value for each of the three pixels and one vector of weights, which is
// used up before the next is loaded.
//
// Order of the sums: bias, then the input channels in rising order.

#include "engine/simd/conv_zones.h"
#include "impl_x86/avx_kernels.h"
#include "impl_x86/avx_vectors.h"

namespace TavroRTC::FDModule::x86 {
namespace {

template <int block, int tile>
void computePixels(const ConvProblem& p, const float* input, float* output) {
  using Step = Sums<Float8, block, tile>;
  const ptrdiff_t channels = p.inputC;
  const float* weights = p.weights;
  for (int32_t channel = 0; channel < p.outputC; channel += block) {
    Step sums;
    sums.start(p.bias != nullptr ? p.bias + channel : nullptr);
    for (ptrdiff_t i = 0; i < channels; ++i, weights += block) {
      Float8 value[tile];
      for (int pixel = 0; pixel < tile; ++pixel)
        value[pixel] = Float8::broadcast(input + pixel * channels + i);
      for (int v = 0; v < Step::vectors; ++v) {
        const Float8 weight = Float8::load(weights + v * Float8::lanes);
        for (int pixel = 0; pixel < tile; ++pixel)
          sums.at[pixel][v] = multiplyAdd(value[pixel], weight, sums.at[pixel][v]);
      }
    }
    sums.store(output + channel, p.outputC, p.activation);
  }
}

template <int block, int tile>
bool runKernel(const ConvProblem& p) {
  const ptrdiff_t pixels = static_cast<ptrdiff_t>(p.outputH) * p.outputW;
  const ptrdiff_t inTiles = pixels / tile * tile;
  ptrdiff_t pixel = 0;
  for (; pixel < inTiles; pixel += tile)
    computePixels<block, tile>(p, p.input + pixel * p.inputC, p.output + pixel * p.outputC);
  for (; pixel < pixels; ++pixel)
    computePixels<block, 1>(p, p.input + pixel * p.inputC, p.output + pixel * p.outputC);
  return true;
}

template <int block>
bool serves(const ConvProblem& p) {
  return p.group == 1 && p.isKernel(1, 1) && p.isStride(1, 1) && !p.isPadded() &&
         fillsBlocks(p.outputC, block);
}

}  // namespace

constinit const ConvKernel conv1x1_32x3 = {"conv1x1_32x3",    layout::block32, fusesRelu,
                                           ConvInput::floats, serves<32>,      runKernel<32, 3>};
constinit const ConvKernel conv1x1_24x3 = {"conv1x1_24x3",    layout::block24, fusesRelu,
                                           ConvInput::floats, serves<24>,      runKernel<24, 3>};
constinit const ConvKernel conv1x1_16x4 = {"conv1x1_16x4",    layout::block16, fusesRelu,
                                           ConvInput::floats, serves<16>,      runKernel<16, 4>};

}  // namespace TavroRTC::FDModule::x86
