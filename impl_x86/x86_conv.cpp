#include "impl_x86/x86_conv.h"

#include "engine/cpu_info.h"
#include "engine/simd/conv_selection.h"
#include "impl_x86/avx_kernels.h"

namespace TavroRTC::FDModule::x86 {
namespace {

using P = const ConvProblem&;

bool withAvxAndFma(const core::RunEnv& /*env*/) {
  return cpuInfo().runsAvxAndFma();
}

// --- Dense ---

bool is1x1(P p) {
  return p.isKernel(1, 1) && p.strideW == 1 && p.dilationH == 1;
}
bool hasPlainColumns(P p, int32_t stride) {
  return is3x3(p) && p.strideW == stride && p.padLeft == 1 && p.dilationW == 1;
}
bool halves(P p) {
  return hasPlainColumns(p, 2) && p.strideH == 2;
}
bool halvesBetweenTaps(P p) {
  return is3x3(p) && p.strideW == 2 && p.padLeft == 2 && p.dilationW == 2;
}
// One output channel has a kernel of its own or none; more than four are better off elsewhere.
bool hasFewOutputs(P p) {
  return is3x3(p) && p.outputC >= 2 && p.outputC <= 4;
}

// A 3x3 window whose kernel doesn't serve it isn't meant for the more general rows behind, which
// therefore leave it out: it goes to the 128-bit kernels.
constexpr simd::ConvChoice denseChoices[] = {
    {[](P p) { return is1x1(p) && fillsBlocks(p.outputC, 32); }, &conv1x1_32x3},
    {[](P p) { return is1x1(p) && fillsBlocks(p.outputC, 24); }, &conv1x1_24x3},
    {[](P p) { return is1x1(p) && fillsBlocks(p.outputC, 16); }, &conv1x1_16x4},
    {[](P p) { return fillsBlocks(p.outputC, 16) && p.bytes != nullptr && halves(p); },
     &conv3x3bytes_16x4},
    {[](P p) { return fillsBlocks(p.outputC, 24) && hasPlainColumns(p, 1); }, &conv3x3s1_24x3},
    {[](P p) { return fillsBlocks(p.outputC, 16) && hasPlainColumns(p, 1); }, &conv3x3s1_16x4},
    {[](P p) {
       return fillsBlocks(p.outputC, 16) && is3x3(p) && p.strideW == 1 && !hasPlainColumns(p, 1);
     },
     &conv3x3dil_16x4},
    // A short block of floats, 9 to 15 channels, is left to the 128-bit kernels.
    {[](P p) { return p.outputC % 16 == 0 && p.bytes == nullptr && halves(p); }, &conv3x3s2_16x4},
    {[](P p) { return p.outputC == 1; }, &conv3x3single_48},
    {[](P p) { return p.outputC >= 2 && hasPlainColumns(p, 1); }, &conv3x3s1_4x6},
    {[](P p) { return hasFewOutputs(p) && halvesBetweenTaps(p); }, &conv3x3s2d2_4x6},
    {[](P p) { return hasFewOutputs(p) && !hasPlainColumns(p, 1) && !halvesBetweenTaps(p); },
     &conv3x3any_4x6},
};

constexpr simd::ConvLevel denseLevels[] = {{withAvxAndFma, denseChoices}};

// --- In groups ---

// From this output width on the longer tile pays.
constexpr int32_t wideOutput = 56;

bool isDepthwiseByOne(P p) {
  return p.group == p.outputC && p.padLeft == 1;
}
bool isWide(P p) {
  return p.strideW == 1 && p.outputW >= wideOutput;
}

constexpr simd::ConvChoice groupChoices[] = {
    {[](P p) { return isDepthwiseByOne(p) && isWide(p); }, &dwConv3x3s1_16x5},
    {[](P p) { return isDepthwiseByOne(p) && !isWide(p); }, &dwConv3x3_16x4},
};

constexpr simd::ConvLevel groupLevels[] = {{withAvxAndFma, groupChoices}};

/// The 256-bit kernel, or null where the 128-bit selection has to follow; the next one alike.
const ConvKernel* tryConvFma(const ConvProblem& problem, const core::RunEnv& env) {
  return simd::selectKernel(denseLevels, problem, env);
}

const ConvKernel* tryDepthwiseFma(const ConvProblem& problem, const core::RunEnv& env) {
  return simd::selectKernel(groupLevels, problem, env);
}

}  // namespace

const ConvKernel* selectConvKernel(const ConvProblem& problem, const core::RunEnv& env) {
  const ConvKernel* kernel = tryConvFma(problem, env);
  return kernel != nullptr ? kernel : simd::selectConvKernel(problem, env);
}

const ConvKernel* selectDepthwiseKernel(const ConvProblem& problem, const core::RunEnv& env) {
  const ConvKernel* kernel = tryDepthwiseFma(problem, env);
  return kernel != nullptr ? kernel : simd::selectDepthwiseKernel(problem, env);
}

}  // namespace TavroRTC::FDModule::x86
