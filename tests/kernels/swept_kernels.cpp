#include "tests/kernels/swept_kernels.h"

#include "engine/simd/conv_kernels.h"
#include "impl_x86/avx_kernels.h"

namespace tavro::test {
namespace {

namespace simd = TavroRTC::FDModule::simd;
namespace x86 = TavroRTC::FDModule::x86;

void toAnything(Lead& /*lead*/) {}
void to1x1(Lead& lead) {
  lead.kernel(1);
  lead.noPadding();
}
void toSingleOutput(Lead& lead) {
  lead.p.outputC = 1;
}
template <int32_t channels>
void toFirstLayer(Lead& lead) {
  lead.kernel(3);
  lead.strides(2);
  lead.set(lead.p.padTop, 1);
  lead.set(lead.p.padLeft, 1);
  lead.set(lead.p.inputC, channels);
  lead.set(lead.p.outputC, 4 * lead.between(1, 10));
}
template <int32_t block>
void toDepthwise(Lead& lead) {
  const int32_t channels = block * lead.between(1, 40 / block);
  lead.p.group = lead.p.inputC = lead.p.outputC = channels;
}
template <int32_t block>
void toGroups(Lead& lead) {
  lead.p.group = lead.between(1, 5);
  lead.p.inputC = lead.p.group * lead.between(1, 5);
  lead.p.outputC = lead.p.group * block * lead.between(1, 2);
}
template <int32_t block>
void toPixelList(Lead& lead) {
  to1x1(lead);
  lead.strides(1);
  lead.blocks(block);
}
template <int32_t block, int32_t stride, int32_t dilation>
void toEdgeLanes(Lead& lead) {
  lead.kernel(3);
  lead.set(lead.p.strideW, stride);
  lead.set(lead.p.dilationW, dilation);
  lead.set(lead.p.padLeft, dilation);
  lead.set(lead.p.padRight, lead.between(0, dilation));
  if (block > 4)
    lead.blocks(block);
}
void toDilated(Lead& lead) {
  lead.kernel(3);
  lead.set(lead.p.strideW, 1);
  lead.blocks(16);
}
void to3x3(Lead& lead) {
  lead.kernel(3);
}
void toBytes(Lead& lead) {
  toFirstLayer<3>(lead);
  lead.blocks(16);
  if (lead.between(0, 2) == 0)
    lead.p.inputC = 1;
}
void toSingleRow(Lead& lead) {
  toFirstLayer<3>(lead);
  lead.strides(1);
  lead.set(lead.p.padRight, lead.between(0, 1));
  lead.set(lead.p.padBottom, lead.between(0, 1));
  lead.p.outputC = 1;
  lead.p.inputW = lead.between(45, 120);
}
template <int32_t largestStride>
void toWideDepthwise(Lead& lead) {
  toDepthwise<16>(lead);
  lead.kernel(3);
  lead.set(lead.p.strideW, lead.between(1, largestStride));
}

SumRule inOrder(const ConvProblem& /*p*/, int32_t /*x*/) {
  return {};
}
SumRule outerTapsFirst(const ConvProblem& /*p*/, int32_t /*x*/) {
  return {.sequence = Sequence::outerTapsFirst, .rows = Outside::zeroTerm};
}
SumRule lanesInTiles(const ConvProblem& p, int32_t x) {
  return {.inLanes = isInTileZone(p, x, 4)};
}
SumRule fusedInOrder(const ConvProblem& /*p*/, int32_t /*x*/) {
  return {.arithmetic = Arithmetic::fused};
}
SumRule edgeLanes(const ConvProblem& /*p*/, int32_t /*x*/) {
  return {.sequence = Sequence::channelsThenTaps,
          .arithmetic = Arithmetic::fused,
          .columns = Outside::zeroTerm};
}
template <int32_t tile, Arithmetic border>
SumRule borderZones(const ConvProblem& p, int32_t x) {
  if (isInTileZone(p, x, tile))
    return {.sequence = Sequence::channelsThenTaps, .arithmetic = Arithmetic::fused};
  return {.arithmetic = border};
}
template <Sequence sequence>
SumRule rollingRows(const ConvProblem& /*p*/, int32_t /*x*/) {
  return {.sequence = sequence,
          .arithmetic = Arithmetic::fused,
          .rows = Outside::zeroTerm,
          .columns = Outside::zeroTerm};
}

constexpr SweptKernel kernels[] = {
    {&simd::convSse1x1_8x4, to1x1, inOrder},
    {&simd::convSse1x1_4x4, to1x1, inOrder},
    {&simd::convSseDirect_8x4, toAnything, inOrder},
    {&simd::convSseDirect_4x4, toAnything, inOrder},
    {&simd::convSseDilated_8x4, toAnything, inOrder},
    {&simd::convSseDilated_4x4, toAnything, inOrder},
    {&simd::convSse3x3s2c3_4x4, toFirstLayer<3>, outerTapsFirst},
    {&simd::convSse3x3s2c1_4x4, toFirstLayer<1>, outerTapsFirst},
    {&simd::convSseSingle, toSingleOutput, lanesInTiles},
    {&simd::convSseScalar, toAnything, inOrder},
    {&simd::dwConvSse_8x4, toDepthwise<8>, inOrder},
    {&simd::dwConvSse_4x4, toDepthwise<4>, inOrder},
    {&simd::dwConvSseScalar, toDepthwise<1>, inOrder},
    {&simd::groupConvSse_8x4, toGroups<8>, inOrder},
    {&simd::groupConvSse_4x4, toGroups<4>, inOrder},
    {&x86::conv1x1_32x3, toPixelList<32>, fusedInOrder, Needs::avxAndFma},
    {&x86::conv1x1_24x3, toPixelList<24>, fusedInOrder, Needs::avxAndFma},
    {&x86::conv1x1_16x4, toPixelList<16>, fusedInOrder, Needs::avxAndFma},
    {&x86::conv3x3s1_16x4, toEdgeLanes<16, 1, 1>, edgeLanes, Needs::avxAndFma},
    {&x86::conv3x3s2_16x4, toEdgeLanes<16, 2, 1>, edgeLanes, Needs::avxAndFma},
    {&x86::conv3x3s1_24x3, toEdgeLanes<24, 1, 1>, edgeLanes, Needs::avxAndFma},
    {&x86::conv3x3s1_4x6, toEdgeLanes<4, 1, 1>, edgeLanes, Needs::avxAndFma},
    {&x86::conv3x3s2d2_4x6, toEdgeLanes<4, 2, 2>, edgeLanes, Needs::avxAndFma},
    {&x86::conv3x3dil_16x4, toDilated, borderZones<4, Arithmetic::fused>, Needs::avxAndFma},
    {&x86::conv3x3any_4x6, to3x3, borderZones<6, Arithmetic::separate>, Needs::avxAndFma},
    {&x86::conv3x3bytes_16x4, toBytes, rollingRows<Sequence::middleTapLast>, Needs::avxAndFma},
    {&x86::conv3x3single_48, toSingleRow, rollingRows<Sequence::channelsThenTaps>,
     Needs::avxAndFma},
    {&x86::dwConv3x3_16x4, toWideDepthwise<2>, fusedInOrder, Needs::avxAndFma},
    {&x86::dwConv3x3s1_16x5, toWideDepthwise<1>, fusedInOrder, Needs::avxAndFma},
};

}  // namespace

std::span<const SweptKernel> sweptKernels() {
  return kernels;
}

}  // namespace tavro::test
