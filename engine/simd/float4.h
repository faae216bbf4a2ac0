#pragma once

// Float4: four floats in a 128-bit register, as a value. The arithmetic is a separate multiply and
// add on every processor, so a sum written with it has one result.

#include <emmintrin.h>

#include "engine/conv_problem.h"

namespace TavroRTC::FDModule::simd {

struct Float4 {
  static constexpr int lanes = 4;

  __m128 value;

  static Float4 zero() { return {_mm_setzero_ps()}; }
  static Float4 load(const float* address) { return {_mm_loadu_ps(address)}; }
  static Float4 broadcast(float number) { return {_mm_set1_ps(number)}; }
  void store(float* address) const { _mm_storeu_ps(address, value); }

  friend Float4 operator+(Float4 a, Float4 b) { return {_mm_add_ps(a.value, b.value)}; }
  friend Float4 operator*(Float4 a, Float4 b) { return {_mm_mul_ps(a.value, b.value)}; }
  /// a < b ? a : b and a > b ? a : b, lane by lane; b where a lane is a NaN.
  friend Float4 smaller(Float4 a, Float4 b) { return {_mm_min_ps(a.value, b.value)}; }
  friend Float4 larger(Float4 a, Float4 b) { return {_mm_max_ps(a.value, b.value)}; }
};

/// The activation functions that other layers can merge into their own pass.
inline Float4 relu(Float4 x) {
  return larger(x, Float4::zero());
}
inline Float4 clippedRelu(Float4 x, float clipMax) {
  return relu(smaller(x, Float4::broadcast(clipMax)));
}
inline Float4 leakyRelu(Float4 x, float slope) {
  return smaller(x, Float4::zero()) * Float4::broadcast(slope) + larger(x, Float4::zero());
}

/// Calls `use` with the function that `activation` names, so that a loop over many values asks for
/// the kind only once.
template <typename Use>
inline void withActivation(const FusedActivation& activation, Use use) {
  switch (static_cast<core::ActivationKind>(activation.kind)) {
    case core::ActivationKind::relu:
      use([](Float4 x) { return relu(x); });
      break;
    case core::ActivationKind::clippedRelu:
      use([limit = activation.clipMax](Float4 x) { return clippedRelu(x, limit); });
      break;
    case core::ActivationKind::leakyRelu:
      use([slope = activation.leakSlope](Float4 x) { return leakyRelu(x, slope); });
      break;
    default:
      use([](Float4 x) { return x; });
  }
}

inline Float4 activate(Float4 x, const FusedActivation& activation) {
  withActivation(activation, [&x](auto function) { x = function(x); });
  return x;
}

inline float activate(float x, const FusedActivation& activation) {
  return _mm_cvtss_f32(activate(Float4{_mm_set_ss(x)}, activation).value);
}

}  // namespace TavroRTC::FDModule::simd
