#pragma once

// The vocabulary of the convolution kernels: a vector of floats as a value, and the sums of one
// step.
//
// A vector type has load, broadcast, store and zero, and `multiplyAdd`, which is where the types
// differ: Float4 rounds the product and the sum, on every processor. FusedFloat4 and Float8, which
// round once, are in impl_x86/avx_vectors.h.
//
// Everything is internal to each file that includes this: such files are compiled for different
// instruction sets, and a shared inline function would end up in the program in whichever of its
// forms the linker meets first.

#include <emmintrin.h>

#include <cstddef>

#include "engine/conv_problem.h"

namespace TavroRTC::FDModule {
namespace {

struct Float4 {
  static constexpr int lanes = 4;   ///< channels of a pixel
  static constexpr int pixels = 1;  ///< pixels of a vector
  /// The activations that kernels of this vector apply to their sums.
  static constexpr ActivationKinds fuses = fusesReluFamily;

  __m128 value;

  static Float4 zero() { return {_mm_setzero_ps()}; }
  static Float4 all(float number) { return {_mm_set1_ps(number)}; }
  static Float4 load(const float* address) { return {_mm_loadu_ps(address)}; }
  static Float4 broadcast(const float* address) { return {_mm_set1_ps(*address)}; }
  /// For vectors of several pixels the second argument is the distance of their values.
  static Float4 broadcast(const float* address, ptrdiff_t) { return broadcast(address); }
  void store(float* address) const { _mm_storeu_ps(address, value); }

  friend Float4 operator+(Float4 a, Float4 b) { return {_mm_add_ps(a.value, b.value)}; }
  friend Float4 operator*(Float4 a, Float4 b) { return {_mm_mul_ps(a.value, b.value)}; }
  /// a < b ? a : b and a > b ? a : b, lane by lane; b where a lane is a NaN.
  friend Float4 smaller(Float4 a, Float4 b) { return {_mm_min_ps(a.value, b.value)}; }
  friend Float4 larger(Float4 a, Float4 b) { return {_mm_max_ps(a.value, b.value)}; }

  friend Float4 multiplyAdd(Float4 a, Float4 b, Float4 sum) { return sum + a * b; }
  friend Float4 relu(Float4 x) { return larger(x, zero()); }
};

template <typename Vector>
inline Vector clippedRelu(Vector x, float clipMax) {
  return relu(smaller(x, Vector::all(clipMax)));
}
template <typename Vector>
inline Vector leakyRelu(Vector x, float slope) {
  return smaller(x, Vector::zero()) * Vector::all(slope) + larger(x, Vector::zero());
}

/// Calls `use` with the function that `activation` names, so that a loop over many values asks for
/// the kind only once. Kinds that the vector's kernels don't fuse are the identity.
template <typename Vector, typename Use>
[[gnu::always_inline]] inline void withActivation(const FusedActivation& activation, Use use) {
  const auto kind = static_cast<core::ActivationKind>(activation.kind);
  if (kind == core::ActivationKind::relu) {
    use([](Vector x) { return relu(x); });
    return;
  }
  if constexpr (Vector::fuses == fusesReluFamily) {
    if (kind == core::ActivationKind::clippedRelu) {
      use([limit = activation.clipMax](Vector x) { return clippedRelu(x, limit); });
      return;
    }
    if (kind == core::ActivationKind::leakyRelu) {
      use([slope = activation.leakSlope](Vector x) { return leakyRelu(x, slope); });
      return;
    }
  }
  use([](Vector x) { return x; });
}

/// Calls `body` with 0 to count - 1. Where the compiler leaves a loop standing, what it indexes
/// isn't kept in registers.
template <int count, typename Body>
[[gnu::always_inline]] inline void unrolled(Body body) {
  if constexpr (count > 0) {
    unrolled<count - 1>(body);
    body(count - 1);
  }
}

/// The sums of one step: `tile` output pixels of `block` channels each. Pixels that share a vector
/// are a group.
template <typename Vector, int block, int tile>
struct Sums {
  static constexpr int vectors = block / Vector::lanes;
  static constexpr int groups = tile / Vector::pixels;

  Vector at[groups][vectors];

  /// All pixels start from the bias of the block's channels; null is zero.
  [[gnu::always_inline]] void start(const float* bias) {
    for (int v = 0; v < vectors; ++v) {
      const Vector first =
          bias != nullptr ? Vector::load(bias + v * Vector::lanes) : Vector::zero();
      unrolled<groups>([&](int group) __attribute__((always_inline)) { at[group][v] = first; });
    }
  }

  /// Stores pixel by pixel in rising order: lanes that a short block has too many fall on the pixel
  /// behind and are written over by it.
  [[gnu::always_inline]] void store(float* output, ptrdiff_t pixelStride,
                                    const FusedActivation& activation) const {
    withActivation<Vector>(activation, [&](auto function) {
      unrolled<groups>([&](int group) __attribute__((always_inline)) {
        for (int pixel = 0; pixel < Vector::pixels; ++pixel, output += pixelStride)
          for (int v = 0; v < vectors; ++v) {
            const Vector value = function(at[group][v]);
            if constexpr (Vector::pixels == 1)
              value.store(output + v * Vector::lanes);
            else
              value.store(output + v * Vector::lanes, pixel);
          }
      });
    });
  }
};

}  // namespace
}  // namespace TavroRTC::FDModule
