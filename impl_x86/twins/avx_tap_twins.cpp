// The 128-bit 1x1 kernels with two pixels in one register. Compiled for AVX alone, which has no
// fused multiply-add: multiply and add are rounded separately, as in the kernels.

#include <immintrin.h>

#include "engine/simd/tap_convolution.h"
#include "engine/simd/vectors.h"
#include "impl_x86/twins.h"

namespace TavroRTC::FDModule::x86 {
namespace {

// Four channels of two neighbouring pixels: what Float4 does for a pixel, operation by operation
// and rounding by rounding, this does for both.
struct PixelPair {
  static constexpr int lanes = 4;
  static constexpr int pixels = 2;
  static constexpr ActivationKinds fuses = fusesReluFamily;

  __m256 value;

  static PixelPair zero() { return {_mm256_setzero_ps()}; }
  static PixelPair all(float number) { return {_mm256_set1_ps(number)}; }
  /// The same four channels for both pixels.
  static PixelPair load(const float* address) {
    return {_mm256_broadcast_ps(reinterpret_cast<const __m128*>(address))};
  }
  /// One value of each pixel; the second one's lies `pixelStride` floats further.
  static PixelPair broadcast(const float* address, ptrdiff_t pixelStride) {
    return {_mm256_blend_ps(_mm256_broadcast_ss(address),
                            _mm256_broadcast_ss(address + pixelStride), 0xF0)};
  }
  /// Four neighbouring values of each pixel, one after the other.
  static void loadFour(PixelPair (&value)[4], const float* address, ptrdiff_t pixelStride) {
    const __m256 values = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(address)),
                                               _mm_loadu_ps(address + pixelStride), 1);
    value[0] = {_mm256_shuffle_ps(values, values, 0x00)};
    value[1] = {_mm256_shuffle_ps(values, values, 0x55)};
    value[2] = {_mm256_shuffle_ps(values, values, 0xAA)};
    value[3] = {_mm256_shuffle_ps(values, values, 0xFF)};
  }
  /// Stores the channels of pixel 0 or 1.
  void store(float* address, int pixel) const {
    _mm_storeu_ps(address,
                  pixel == 0 ? _mm256_castps256_ps128(value) : _mm256_extractf128_ps(value, 1));
  }

  friend PixelPair operator+(PixelPair a, PixelPair b) { return {_mm256_add_ps(a.value, b.value)}; }
  friend PixelPair operator*(PixelPair a, PixelPair b) { return {_mm256_mul_ps(a.value, b.value)}; }
  friend PixelPair smaller(PixelPair a, PixelPair b) { return {_mm256_min_ps(a.value, b.value)}; }
  friend PixelPair larger(PixelPair a, PixelPair b) { return {_mm256_max_ps(a.value, b.value)}; }

  friend PixelPair multiplyAdd(PixelPair a, PixelPair b, PixelPair sum) { return sum + a * b; }
  friend PixelPair relu(PixelPair x) { return larger(x, zero()); }
};

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
