#pragma once

// Unaligned loads and stores for block forms. Internal to each file that includes them: what is
// compiled with an instruction set of its own must not be shared with other files.

#include <emmintrin.h>

#include <cstdint>
#include <cstring>

namespace TavroRTC::FDModule::ssse3 {

static inline __m128i load16(const void* address) {
  return _mm_loadu_si128(static_cast<const __m128i*>(address));
}

static inline __m128i load8(const void* address) {
  return _mm_loadl_epi64(static_cast<const __m128i*>(address));
}

static inline __m128i load4(const uint8_t* address) {
  int32_t word = 0;
  std::memcpy(&word, address, sizeof(word));
  return _mm_cvtsi32_si128(word);
}

static inline void store16(uint8_t* address, __m128i bytes) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(address), bytes);
}

static inline void store8(uint8_t* address, __m128i bytes) {
  _mm_storel_epi64(reinterpret_cast<__m128i*>(address), bytes);
}

}  // namespace TavroRTC::FDModule::ssse3
