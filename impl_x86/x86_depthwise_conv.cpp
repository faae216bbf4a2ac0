#include "impl_x86/x86_depthwise_conv.h"

#include "engine/cpu_info.h"
#include "engine/simd/conv.h"
#include "impl_x86/avx_kernels.h"

namespace TavroRTC::FDModule::x86 {
namespace {

// From this output width on the longer tile pays.
constexpr int32_t wideOutput = 56;

}  // namespace

const ConvKernel* selectDepthwiseFma(const ConvProblem& problem) {
  if (!cpuInfo().hasAvxAndFma() || problem.group != problem.outputC || problem.padLeft != 1)
    return nullptr;
  const bool isWide = problem.strideW == 1 && problem.outputW >= wideOutput;
  const ConvKernel& kernel = isWide ? dwConv3x3s1_16x5 : dwConv3x3_16x4;
  return kernel.serves(problem) ? &kernel : nullptr;
}

bool DepthwiseConv::tryDepthwiseFma() {
  if (!fitsTensors())
    return false;
  const ConvProblem sizes = problem();
  const ConvKernel* kernel = selectDepthwiseFma(sizes);
  return kernel != nullptr && simd::runConvKernel(*this, *kernel, sizes);
}

bool DepthwiseConv::forward(core::RunEnv* env) {
  return tryDepthwiseFma() || simd::DepthwiseConv::forward(env);
}

}  // namespace TavroRTC::FDModule::x86
