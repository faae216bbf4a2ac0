// The dense and grouped 128-bit kernels, all of one family (tap_convolution.h).

#include "engine/simd/tap_convolution.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::simd {
namespace {

constexpr int32_t tile = 4;

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

constinit const ConvKernel convSse1x1_8x4 = {
    "convSse1x1_8x4",
    layout::block8,
    fusesReluFamily,
    ConvInput::floats,
    [](const ConvProblem& p) { return serves1x1(p, 8); },
    runKernel<Float4, 8, tile, Taps::adjacent, Bias::inPlace>};
constinit const ConvKernel convSse1x1_4x4 = {
    "convSse1x1_4x4",
    layout::block4,
    fusesReluFamily,
    ConvInput::floats,
    [](const ConvProblem& p) { return serves1x1(p, 4); },
    runKernel<Float4, 4, tile, Taps::adjacent, Bias::inPlace>};

constinit const ConvKernel convSseDirect_8x4 = {
    "convSseDirect_8x4", layout::block8,
    fusesReluFamily,     ConvInput::floats,
    servesDirect,        runKernel<Float4, 8, tile, Taps::adjacent, Bias::paddedCopy>};
constinit const ConvKernel convSseDirect_4x4 = {
    "convSseDirect_4x4", layout::block4,
    fusesReluFamily,     ConvInput::floats,
    servesDirect,        runKernel<Float4, 4, tile, Taps::adjacent, Bias::paddedCopy>};

constinit const ConvKernel convSseDilated_8x4 = {
    "convSseDilated_8x4", layout::block8,
    fusesReluFamily,      ConvInput::floats,
    servesDilated,        runKernel<Float4, 8, tile, Taps::spaced, Bias::paddedCopy>};
constinit const ConvKernel convSseDilated_4x4 = {
    "convSseDilated_4x4", layout::block4,
    fusesReluFamily,      ConvInput::floats,
    servesDilated,        runKernel<Float4, 4, tile, Taps::spaced, Bias::paddedCopy>};

constinit const ConvKernel groupConvSse_8x4 = {
    "groupConvSse_8x4", layout::block8,
    fusesReluFamily,    ConvInput::floats,
    servesGroups<8>,    runKernel<Float4, 8, tile, Taps::spaced, Bias::paddedCopy>};
constinit const ConvKernel groupConvSse_4x4 = {
    "groupConvSse_4x4", layout::block4,
    fusesReluFamily,    ConvInput::floats,
    servesGroups<4>,    runKernel<Float4, 4, tile, Taps::spaced, Bias::paddedCopy>};

}  // namespace TavroRTC::FDModule::simd
