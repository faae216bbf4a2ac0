#include "impl_x86/x86_conv.h"

#include "engine/cpu_info.h"
#include "impl_x86/avx_kernel_limits.h"
#include "impl_x86/avx_kernels.h"

namespace TavroRTC::FDModule::x86 {
namespace {

using P = const ConvProblem&;

bool is1x1(P p) {
  return p.isKernel(1, 1) && p.strideW == 1 && p.dilationH == 1;
}
bool hasPlainColumns(P p, int32_t stride) {
  return p.strideW == stride && p.padLeft == 1 && p.dilationW == 1;
}
bool halves(P p) {
  return hasPlainColumns(p, 2) && p.strideH == 2;
}

// The first row that applies decides. If its kernel doesn't serve the sizes, or there is none, the
// layer is left to the 128-bit kernels, as it is without AVX and FMA.
constexpr simd::ConvChoice choices[] = {
    {[](P p) { return is1x1(p) && fillsBlocks(p.outputC, 32); }, &conv1x1_32x3},
    {[](P p) { return is1x1(p) && fillsBlocks(p.outputC, 24); }, &conv1x1_24x3},
    {[](P p) { return is1x1(p) && fillsBlocks(p.outputC, 16); }, &conv1x1_16x4},
    {[](P p) { return !is3x3(p); }, nullptr},
    {[](P p) {
       const bool isShort = p.outputC >= 9 && p.outputC <= 15;
       return ((p.outputC % 16 == 0 && p.bytes != nullptr) || isShort) && halves(p);
     },
     &conv3x3bytes_16x4},
    {[](P p) { return fillsBlocks(p.outputC, 24) && hasPlainColumns(p, 1); }, &conv3x3s1_24x3},
    {[](P p) { return fillsBlocks(p.outputC, 16) && hasPlainColumns(p, 1); }, &conv3x3s1_16x4},
    {[](P p) { return fillsBlocks(p.outputC, 16) && p.strideW == 1; }, &conv3x3dil_16x4},
    {[](P p) { return fillsBlocks(p.outputC, 16) && p.bytes == nullptr && halves(p); },
     &conv3x3s2_16x4},
    {[](P p) { return p.outputC == 1; }, &conv3x3single_48},
    {[](P p) { return hasPlainColumns(p, 1); }, &conv3x3s1_4x6},
    {[](P p) { return p.outputC > 4; }, nullptr},
    {[](P p) { return p.strideW == 2 && p.padLeft == 2 && p.dilationW == 2; }, &conv3x3s2d2_4x6},
    {[](P) { return true; }, &conv3x3any_4x6},
};

}  // namespace

const ConvKernel* selectConvFma(const ConvProblem& problem) {
  if (!cpuInfo().hasAvxAndFma())
    return nullptr;
  for (const simd::ConvChoice& choice : choices)
    if (choice.applies(problem)) {
      const ConvKernel* kernel = choice.withAvxAndFma;
      return kernel != nullptr && kernel->serves(problem) ? kernel : nullptr;
    }
  return nullptr;
}

bool Conv::tryConvFma() {
  if (!fitsTensors())
    return false;
  ConvProblem sizes = problem();
  sizes.bytes = inputs[0]->byteData;
  const ConvKernel* kernel = selectConvFma(sizes);
  return kernel != nullptr && simd::runConvKernel(*this, *kernel, sizes);
}

bool Conv::forward(core::RunEnv* env) {
  return tryConvFma() || simd::Conv::forward(env);
}

}  // namespace TavroRTC::FDModule::x86
