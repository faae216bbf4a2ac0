// Twins of block forms in color_row_kernels_ssse3.cpp, in AVX2: twice as many pixels a step and the
// same bytes. A twin takes the same blocks; what its wider steps leave over is left to the block
// form. Compiled with its own instruction set; all that isn't a kernel is internal.

#include <immintrin.h>

#include "image/row_forms.h"

namespace TavroRTC::FDModule::avx2 {
namespace {

constexpr int32_t pixelStep = 16;

__m256i load32(const void* address) {
  return _mm256_loadu_si256(static_cast<const __m256i*>(address));
}

void store32(uint8_t* address, __m256i bytes) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(address), bytes);
}

// How many of `width` pixels are done in wide steps.
int32_t wideWidth(int32_t width) {
  return width < pixelStep ? 0 : width - width % pixelStep;
}

// The same sixteen bytes for either half.
__m256i loadTwice16(const uint8_t* address) {
  return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(address)));
}

// The same eight bytes four times.
__m256i loadFourTimes8(const uint8_t* address) {
  return _mm256_broadcastq_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(address)));
}

// Sixteen pixels, in this order: 0 to 3 and 8 to 11 in the lower half, 4 to 7 and 12 to 15 in the
// upper one. So the bytes of a pixel, brought together within each half, are in order at last.
struct Colours {
  __m256i first, second, third;
};

Colours convertPixels(const uint8_t* y, const uint8_t* u, const uint8_t* v,
                      const YuvTable& constants) {
  const __m256i samplesTwice =
      _mm256_setr_epi8(0, 0, 1, 1, 2, 2, 3, 3, 8, 8, 9, 9, 10, 10, 11, 11,  //
                       4, 4, 5, 5, 6, 6, 7, 7, 12, 12, 13, 13, 14, 14, 15, 15);
  const __m256i pairsTwice =
      _mm256_setr_epi8(0, 1, 0, 1, 2, 3, 2, 3, 8, 9, 8, 9, 10, 11, 10, 11,  //
                       4, 5, 4, 5, 6, 7, 6, 7, 12, 13, 12, 13, 14, 15, 14, 15);
  const __m256i luma = _mm256_shuffle_epi8(loadTwice16(y), samplesTwice);
  const __m256i y1 = _mm256_mulhi_epu16(luma, load32(constants.yGain));
  const __m256i chroma =
      _mm256_shuffle_epi8(_mm256_unpacklo_epi8(loadFourTimes8(u), loadFourTimes8(v)), pairsTwice);
  const auto colour = [&](const int8_t* coefficients, const int16_t* bias) {
    const __m256i product = _mm256_maddubs_epi16(chroma, load32(coefficients));
    return _mm256_srai_epi16(_mm256_adds_epi16(_mm256_sub_epi16(load32(bias), product), y1), 6);
  };
  return {colour(constants.first, constants.firstBias),
          colour(constants.second, constants.secondBias),
          colour(constants.third, constants.thirdBias)};
}

/// Sixteen pixels of four bytes in order, eight a vector.
struct Pixels {
  __m256i eight[2];
};

Pixels joinBytes(__m256i byte0, __m256i byte1, __m256i byte2, __m256i byte3) {
  const __m256i bytes02 = _mm256_packus_epi16(byte0, byte2);
  const __m256i bytes13 = _mm256_packus_epi16(byte1, byte3);
  const __m256i bytes01 = _mm256_unpacklo_epi8(bytes02, bytes13);
  const __m256i bytes23 = _mm256_unpackhi_epi8(bytes02, bytes13);
  return {_mm256_unpacklo_epi16(bytes01, bytes23), _mm256_unpackhi_epi16(bytes01, bytes23)};
}

__m256i opaque() {
  return _mm256_set1_epi16(255);
}

void storeFourBytes(uint8_t* dst, const Pixels& pixels) {
  store32(dst, pixels.eight[0]);
  store32(dst + 32, pixels.eight[1]);
}

// The first three bytes of each pixel: six words of a vector are left, of which the second one's
// first two go behind those of the first.
void storeThreeBytes(uint8_t* dst, const Pixels& pixels) {
  const __m256i keep = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,  //
                                        0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  const __m256i first = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(pixels.eight[0], keep),
                                                    _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
  const __m256i second = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(pixels.eight[1], keep),
                                                     _mm256_setr_epi32(2, 4, 5, 6, 3, 7, 0, 1));
  store32(dst, _mm256_blend_epi32(first, second, 0xC0));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 32), _mm256_castsi256_si128(second));
}

// `store` writes sixteen pixels.
template <YuvKernel* blockForm, int32_t bytesPerPixel, typename Store>
void convertRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                const YuvTable& constants, int32_t width, Store store) {
  const int32_t wide = wideWidth(width);
  for (int32_t i = 0; i < wide; i += pixelStep)
    store(dst + ptrdiff_t{bytesPerPixel} * i,
          convertPixels(y + i, u + i / 2, v + i / 2, constants));
  blockForm(y + wide, u + wide / 2, v + wide / 2, dst + ptrdiff_t{bytesPerPixel} * wide, constants,
            width - wide);
}

}  // namespace

void yuvRowFourBytes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                     const YuvTable& constants, int32_t width) {
  convertRow<ssse3::yuvRowFourBytes, 4>(
      y, u, v, dst, constants, width, [](uint8_t* to, const Colours& colours) {
        storeFourBytes(to, joinBytes(colours.first, colours.second, colours.third, opaque()));
      });
}

void yuvRowOpaqueFirst(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                       const YuvTable& constants, int32_t width) {
  convertRow<ssse3::yuvRowOpaqueFirst, 4>(
      y, u, v, dst, constants, width, [](uint8_t* to, const Colours& colours) {
        storeFourBytes(to, joinBytes(opaque(), colours.first, colours.second, colours.third));
      });
}

void yuvRowThreeBytes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                      const YuvTable& constants, int32_t width) {
  convertRow<ssse3::yuvRowThreeBytes, 3>(
      y, u, v, dst, constants, width, [](uint8_t* to, const Colours& colours) {
        storeThreeBytes(to, joinBytes(colours.first, colours.second, colours.third, colours.third));
      });
}

void packedRowDropLast(const uint8_t* src, uint8_t* dst, int32_t width) {
  for (int32_t i = 0; i < width; i += pixelStep, src += 4 * pixelStep, dst += 3 * pixelStep)
    storeThreeBytes(dst, {load32(src), load32(src + 32)});
}

}  // namespace TavroRTC::FDModule::avx2
