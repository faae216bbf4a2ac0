#include "impl_x86/x86_depthwise_conv.h"

#include "engine/simd/conv.h"

namespace TavroRTC::FDModule::x86 {

// There is no 256-bit kernel yet.
const ConvKernel* selectDepthwiseFma(const ConvProblem& /*problem*/) {
  return nullptr;
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
