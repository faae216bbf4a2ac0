#pragma once

// The vectors of the fused multiply-add kernels, in the vocabulary of engine/simd/vectors.h. Only
// files compiled for AVX and FMA include this; everything is internal to them.

#include <immintrin.h>

#include "engine/simd/vectors.h"

namespace TavroRTC::FDModule::x86 {
namespace {

struct Float8 {
  static constexpr int lanes = 8;
  static constexpr int pixels = 1;
  static constexpr ActivationKinds fuses = fusesRelu;

  __m256 value;

  static Float8 zero() { return {_mm256_setzero_ps()}; }
  static Float8 load(const float* address) { return {_mm256_loadu_ps(address)}; }
  static Float8 broadcast(const float* address) { return {_mm256_broadcast_ss(address)}; }
  void store(float* address) const { _mm256_storeu_ps(address, value); }

  friend Float8 multiplyAdd(Float8 a, Float8 b, Float8 sum) {
    return {_mm256_fmadd_ps(a.value, b.value, sum.value)};
  }
  friend Float8 relu(Float8 x) { return {_mm256_max_ps(x.value, _mm256_setzero_ps())}; }
};

struct FusedFloat4 {
  static constexpr int lanes = 4;
  static constexpr int pixels = 1;
  static constexpr ActivationKinds fuses = fusesRelu;

  __m128 value;

  static FusedFloat4 zero() { return {_mm_setzero_ps()}; }
  static FusedFloat4 load(const float* address) { return {_mm_loadu_ps(address)}; }
  static FusedFloat4 broadcast(const float* address) { return {_mm_broadcast_ss(address)}; }
  void store(float* address) const { _mm_storeu_ps(address, value); }

  friend FusedFloat4 multiplyAdd(FusedFloat4 a, FusedFloat4 b, FusedFloat4 sum) {
    return {_mm_fmadd_ps(a.value, b.value, sum.value)};
  }
  friend FusedFloat4 relu(FusedFloat4 x) { return {_mm_max_ps(x.value, _mm_setzero_ps())}; }
};

}  // namespace
}  // namespace TavroRTC::FDModule::x86
