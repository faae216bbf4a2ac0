#pragma once

// The vector types of the fused multiply-add kernels, eight or four floats as a value, and the
// accumulators of one step. Only files compiled for AVX and FMA include this; everything is
// internal to them (see engine/simd/conv_zones.h).

#include <immintrin.h>

#include <cstddef>

namespace TavroRTC::FDModule::x86 {
namespace {

struct Float8 {
  static constexpr int lanes = 8;

  __m256 value;

  static Float8 zero() { return {_mm256_setzero_ps()}; }
  static Float8 load(const float* address) { return {_mm256_loadu_ps(address)}; }
  static Float8 broadcast(const float* address) { return {_mm256_broadcast_ss(address)}; }
  void store(float* address) const { _mm256_storeu_ps(address, value); }
};

inline Float8 multiplyAdd(Float8 a, Float8 b, Float8 sum) {
  return {_mm256_fmadd_ps(a.value, b.value, sum.value)};
}
inline Float8 multiplyThenAdd(Float8 a, Float8 b, Float8 sum) {
  return {_mm256_add_ps(_mm256_mul_ps(a.value, b.value), sum.value)};
}
inline Float8 relu(Float8 x) {
  return {_mm256_max_ps(x.value, _mm256_setzero_ps())};
}

struct Float4 {
  static constexpr int lanes = 4;

  __m128 value;

  static Float4 zero() { return {_mm_setzero_ps()}; }
  static Float4 load(const float* address) { return {_mm_loadu_ps(address)}; }
  static Float4 broadcast(const float* address) { return {_mm_broadcast_ss(address)}; }
  void store(float* address) const { _mm_storeu_ps(address, value); }
};

inline Float4 multiplyAdd(Float4 a, Float4 b, Float4 sum) {
  return {_mm_fmadd_ps(a.value, b.value, sum.value)};
}
inline Float4 multiplyThenAdd(Float4 a, Float4 b, Float4 sum) {
  return {_mm_add_ps(_mm_mul_ps(a.value, b.value), sum.value)};
}
inline Float4 relu(Float4 x) {
  return {_mm_max_ps(x.value, _mm_setzero_ps())};
}

/// The sums of one step: `tile` output pixels of `block` channels each.
template <typename Vector, int block, int tile>
struct Sums {
  static constexpr int vectors = block / Vector::lanes;

  Vector at[tile][vectors];

  /// All pixels start from the bias of the block's channels; null is zero.
  void start(const float* bias) {
    for (int v = 0; v < vectors; ++v) {
      const Vector first =
          bias != nullptr ? Vector::load(bias + v * Vector::lanes) : Vector::zero();
      for (int pixel = 0; pixel < tile; ++pixel)
        at[pixel][v] = first;
    }
  }

  /// Stores pixel by pixel in rising order: lanes that a short block has too many fall on the pixel
  /// behind and are written over by it.
  void store(float* output, ptrdiff_t pixelStride, bool withRelu) const {
    for (int pixel = 0; pixel < tile; ++pixel)
      for (int v = 0; v < vectors; ++v)
        (withRelu ? relu(at[pixel][v]) : at[pixel][v])
            .store(output + pixel * pixelStride + v * Vector::lanes);
  }
};

}  // namespace
}  // namespace TavroRTC::FDModule::x86
