#include "engine/number_conversion.h"

#include <immintrin.h>

namespace TavroRTC::FDModule::f16c {

void halfToFloat(const uint16_t* src, float* dst, int64_t groups) {
  for (int64_t i = 0; i < groups * groupSize; i += groupSize) {
    const __m128i halves = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i));
    _mm256_storeu_ps(dst + i, _mm256_cvtph_ps(halves));
  }
}

void floatToHalf(const float* src, uint16_t* dst, int64_t groups) {
  for (int64_t i = 0; i < groups * groupSize; i += groupSize) {
    const __m128i halves = _mm256_cvtps_ph(_mm256_loadu_ps(src + i), _MM_FROUND_TO_NEAREST_INT);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), halves);
  }
}

}  // namespace TavroRTC::FDModule::f16c
