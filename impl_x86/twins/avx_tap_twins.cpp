// The 128-bit 1x1 kernels with two pixels in one register. Compiled for AVX alone, which has no
// fused multiply-add: multiply and add are rounded separately, as in the kernels.

#include "engine/simd/tap_convolution.h"
#include "impl_x86/twins/avx_pixel_pair.h"
#include "impl_x86/twins/twin_runs.h"

namespace TavroRTC::FDModule::x86 {
namespace {

// Without a stride the rows of a 1x1 convolution follow each other like the pixels of one.
ConvProblem inOneRow(ConvProblem p) {
  if (p.isStride(1, 1)) {
    p.inputW *= p.inputH;
    p.outputW *= p.outputH;
    p.inputH = p.outputH = 1;
  }
  return p;
}

}  // namespace

bool convSse1x1_4x4_256(const ConvProblem& p) {
  return simd::runKernel<PixelPair, 4, 12, simd::Taps::adjacent, simd::Bias::inPlace>(inOneRow(p));
}

}  // namespace TavroRTC::FDModule::x86
