#pragma once

// The vectors of the 512-bit twins, in the vocabulary of engine/simd/vectors.h. Only files compiled
// for AVX-512 include this; everything is internal to them.

#include <immintrin.h>

#include "engine/simd/vectors.h"

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
}  // namespace TavroRTC::FDModule::x86
