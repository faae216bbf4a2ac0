#include "impl_x86/x86_conv.h"

namespace TavroRTC::FDModule::x86 {

// There is no 256-bit kernel yet.
const ConvKernel* selectConvFma(const ConvProblem& /*problem*/, bool /*hasByteImage*/) {
  return nullptr;
}

bool Conv::tryConvFma() {
  if (!fitsTensors())
    return false;
  const ConvProblem sizes = problem();
  const ConvKernel* kernel = selectConvFma(sizes, inputs[0]->byteData != nullptr);
  return kernel != nullptr && simd::runConvKernel(*this, *kernel, sizes);
}

bool Conv::forward(core::RunEnv* env) {
  return tryConvFma() || simd::Conv::forward(env);
}

}  // namespace TavroRTC::FDModule::x86
