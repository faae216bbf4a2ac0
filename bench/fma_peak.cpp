#include "bench/fma_peak.h"

#include <immintrin.h>

namespace tavro::bench {

// x = 0.5 x + 0.5 settles at 1: no value becomes infinite or denormal, however long it runs.
constexpr int accumulators = 12;

__attribute__((target("avx,fma"))) float fmaSteps(int64_t steps) {
  const __m256 half = _mm256_set1_ps(0.5F);
  __m256 sums[accumulators];
  for (int i = 0; i < accumulators; ++i)
    sums[i] = _mm256_set1_ps(static_cast<float>(i));
  for (int64_t step = 0; step < steps; ++step)
#pragma GCC unroll 12
    for (__m256& sum : sums)
      sum = _mm256_fmadd_ps(sum, half, half);
  for (int i = 1; i < accumulators; ++i)
    sums[0] = _mm256_add_ps(sums[0], sums[i]);
  return _mm256_cvtss_f32(sums[0]);
}

__attribute__((target("avx512f"))) float fmaSteps512(int64_t steps) {
  const __m512 half = _mm512_set1_ps(0.5F);
  __m512 sums[accumulators];
  for (int i = 0; i < accumulators; ++i)
    sums[i] = _mm512_set1_ps(static_cast<float>(i));
  for (int64_t step = 0; step < steps; ++step)
#pragma GCC unroll 12
    for (__m512& sum : sums)
      sum = _mm512_fmadd_ps(sum, half, half);
  for (int i = 1; i < accumulators; ++i)
    sums[0] = _mm512_add_ps(sums[0], sums[i]);
  return _mm512_cvtss_f32(sums[0]);
}

}  // namespace tavro::bench
