#include "engine/simd/depthwise_conv.h"

#include "engine/cpu_info.h"
#include "engine/simd/conv.h"
#include "engine/simd/conv_kernels.h"

namespace TavroRTC::FDModule::simd {
namespace {

using P = const ConvProblem&;

bool isDepthwise(P p) {
  return p.group == p.outputC;
}
int32_t groupOutputs(P p) {
  return p.outputC / p.group;
}

constexpr ConvChoice depthwiseChoices[] = {
    {[](P p) { return isDepthwise(p) && p.outputC % 16 == 0; }, &dwConvSse_8x4, &dwConvSse_8x4},
    {[](P p) { return isDepthwise(p) && p.outputC % 8 == 0; }, &dwConvSse_4x4, &dwConvSse_8x4},
    {[](P p) { return isDepthwise(p) && p.outputC % 4 == 0; }, &dwConvSse_4x4, &dwConvSse_4x4},
    {[](P p) { return isDepthwise(p); }, &dwConvSseScalar, &dwConvSseScalar},
    {[](P p) { return !isDepthwise(p) && groupOutputs(p) % 16 == 0; }, &groupConvSse_8x4,
     &groupConvSse_8x4},
    {[](P p) { return !isDepthwise(p) && groupOutputs(p) % 8 == 0; }, &groupConvSse_4x4,
     &groupConvSse_8x4},
    {[](P p) { return !isDepthwise(p) && groupOutputs(p) % 4 == 0; }, &groupConvSse_4x4,
     &groupConvSse_4x4},
};

}  // namespace

const ConvKernel* selectDepthwiseKernel(const ConvProblem& problem, const core::RunEnv& env) {
  return selectKernel(depthwiseChoices, problem, !env.halfPrecision && cpuInfo().hasAvxAndFma());
}

bool DepthwiseConv::forward(core::RunEnv* env) {
  if (!fitsTensors())
    return false;
  const ConvProblem sizes = problem();
  const ConvKernel* kernel = selectDepthwiseKernel(sizes, *env);
  return kernel != nullptr && runConvKernel(*this, *kernel, sizes);
}

}  // namespace TavroRTC::FDModule::simd
