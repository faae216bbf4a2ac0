// The fused multiply-add kernels on 512 bits: each family's template over vectors of sixteen
// floats. There are 32 registers, so that a step takes more pixels: at least eight sums, which keep
// two units with a latency of four cycles busy, and as few loads for each multiply-add as the
// registers allow.

#include <immintrin.h>

#include "engine/simd/vectors.h"
#include "impl_x86/border_zones.h"
#include "impl_x86/depthwise_columns.h"
#include "impl_x86/edge_lanes.h"
#include "impl_x86/pixel_list.h"
#include "impl_x86/rolling_rows.h"
#include "impl_x86/twins.h"

namespace TavroRTC::FDModule::x86 {
namespace {

struct Float16 {
  static constexpr int lanes = 16;
  static constexpr int pixels = 1;
  static constexpr ActivationKinds fuses = fusesRelu;

  __m512 value;

  static Float16 zero() { return {_mm512_setzero_ps()}; }
  static Float16 load(const float* address) {
    __m512 value = _mm512_loadu_ps(address);
    // GCC would rather load it again for each multiplication than keep it in a register.
    __asm__("" : "+v"(value));
    return {value};
  }
  static Float16 broadcast(const float* address) { return {_mm512_set1_ps(*address)}; }
  void store(float* address) const { _mm512_storeu_ps(address, value); }

  friend Float16 multiplyAdd(Float16 a, Float16 b, Float16 sum) {
    return {_mm512_fmadd_ps(a.value, b.value, sum.value)};
  }
  // With a mask of all lanes: without one, GCC 12 warns of its own header.
  friend Float16 relu(Float16 x) {
    return {_mm512_maskz_max_ps(0xFFFF, x.value, _mm512_setzero_ps())};
  }
};

}  // namespace

bool conv1x1_32x3_512(const ConvProblem& p) {
  return runPixelList<Float16, 32, 9>(p);
}
bool conv1x1_16x4_512(const ConvProblem& p) {
  return runPixelList<Float16, 16, 12>(p);
}

bool conv3x3s1_16x4_512(const ConvProblem& p) {
  return runEdgeLanes<Float16, 16, 12, Columns<1, 1>, 4>(p);
}
bool conv3x3dil_16x4_512(const ConvProblem& p) {
  return runBorderZones<Float16, Float16, 16, 4, 12, 8>(p);
}
bool conv3x3bytes_16x4_512(const ConvProblem& p) {
  return runBytes<Float16, 12, 4>(p);
}

bool dwConv3x3_16x4_512(const ConvProblem& p) {
  return runDepthwise<Float16, 8>(p);
}

}  // namespace TavroRTC::FDModule::x86
