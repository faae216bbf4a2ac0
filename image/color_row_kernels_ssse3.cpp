// The block forms for colours and layouts, in SSSE3, 16 pixels or samples at a time, or 8 from YUV.
// Compiled with its own instruction set; all that isn't a kernel is internal.
//
// To YUV, pixels of three bytes are spread to four, the last one 0, so that one set of kernels
// serves all layouts: a colour's coefficient stands at the colour's byte, and a 0 at the byte that
// isn't one.

#include <tmmintrin.h>

#include "image/block_access.h"
#include "image/row_forms.h"

namespace TavroRTC::FDModule::ssse3 {
namespace {

/// Sixteen pixels of four bytes, four a vector.
struct Pixels {
  __m128i four[4];
};

// Sixteen pixels of three bytes: 48 of them, of which the last load takes the last 16. A mask's
// negative entry leaves a 0.
Pixels spread(const uint8_t* src, __m128i fromStart, __m128i fromFourth) {
  return {_mm_shuffle_epi8(load16(src), fromStart), _mm_shuffle_epi8(load16(src + 12), fromStart),
          _mm_shuffle_epi8(load16(src + 24), fromStart),
          _mm_shuffle_epi8(load16(src + 32), fromFourth)};
}

template <int32_t bytesPerPixel>
Pixels loadPixels(const uint8_t* src) {
  if constexpr (bytesPerPixel == 4) {
    return {load16(src), load16(src + 16), load16(src + 32), load16(src + 48)};
  } else {
    return spread(src, _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1),
                  _mm_setr_epi8(4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15, -1));
  }
}

// The coefficients of a pixel's bytes, as they lie in memory.
constexpr int32_t coefficients(const PixelLayout& layout, int32_t red, int32_t green,
                               int32_t blue) {
  const auto at = [](int32_t byte, int32_t value) {
    return static_cast<uint32_t>(value & 255) << (8 * byte);
  };
  return static_cast<int32_t>(at(layout.red, red) | at(layout.green, green) |
                              at(layout.blue, blue));
}

// The weighted sums of eight pixels. Neither a pair nor a whole leaves 16 bits: the coefficients of
// a pixel add up to 112 at most, on either side of 0, times 255.
__m128i weightedSums(__m128i pixels0, __m128i pixels4, __m128i weights) {
  return _mm_hadd_epi16(_mm_maddubs_epi16(pixels0, weights), _mm_maddubs_epi16(pixels4, weights));
}

template <PixelLayout layout>
void luma(const uint8_t* src, uint8_t* dstY, int32_t width) {
  constexpr int32_t pixelWeights = coefficients(layout, 33, 65, 13);
  const __m128i weights = _mm_set1_epi32(pixelWeights);
  const __m128i black = _mm_set1_epi8(16);
  for (int32_t i = 0; i < width; i += colorBlock, src += colorBlock * layout.bytesPerPixel) {
    const Pixels p = loadPixels<layout.bytesPerPixel>(src);
    const __m128i low = _mm_srli_epi16(weightedSums(p.four[0], p.four[1], weights), 7);
    const __m128i high = _mm_srli_epi16(weightedSums(p.four[2], p.four[3], weights), 7);
    store16(dstY + i, _mm_add_epi8(_mm_packus_epi16(low, high), black));
  }
}

// The averages of neighbouring pixels: four from eight.
__m128i averagePairs(__m128i pixels0, __m128i pixels4) {
  const __m128 a = _mm_castsi128_ps(pixels0);
  const __m128 b = _mm_castsi128_ps(pixels4);
  return _mm_avg_epu8(_mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0))),
                      _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1))));
}

template <PixelLayout layout>
void chroma(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV, int32_t width) {
  constexpr int32_t pixelWeightsU = coefficients(layout, -38, -74, 112);
  constexpr int32_t pixelWeightsV = coefficients(layout, 112, -94, -18);
  const __m128i weightsU = _mm_set1_epi32(pixelWeightsU);
  const __m128i weightsV = _mm_set1_epi32(pixelWeightsV);
  const __m128i centre = _mm_set1_epi8(-128);  // 128, added without a carry
  for (int32_t i = 0; i < width; i += colorBlock, src += colorBlock * layout.bytesPerPixel) {
    const Pixels top = loadPixels<layout.bytesPerPixel>(src);
    const Pixels bottom = loadPixels<layout.bytesPerPixel>(src + srcStride);
    __m128i column[4];
    for (int n = 0; n < 4; ++n)
      column[n] = _mm_avg_epu8(top.four[n], bottom.four[n]);
    const __m128i mean0 = averagePairs(column[0], column[1]);
    const __m128i mean4 = averagePairs(column[2], column[3]);
    const __m128i u = _mm_srai_epi16(weightedSums(mean0, mean4, weightsU), 8);
    const __m128i v = _mm_srai_epi16(weightedSums(mean0, mean4, weightsV), 8);
    const __m128i samples = _mm_add_epi8(_mm_packs_epi16(u, v), centre);
    store8(dstU + i / 2, samples);
    store8(dstV + i / 2, _mm_srli_si128(samples, 8));
  }
}

void addOpaque(const uint8_t* src, uint8_t* dst, int32_t width, __m128i fromStart,
               __m128i fromFourth) {
  const __m128i opaque = _mm_set1_epi32(static_cast<int32_t>(0xFF000000U));
  for (int32_t i = 0; i < width; i += colorBlock, src += 3 * colorBlock, dst += 4 * colorBlock) {
    const Pixels pixels = spread(src, fromStart, fromFourth);
    for (int n = 0; n < 4; ++n)
      store16(dst + 16 * n, _mm_or_si128(pixels.four[n], opaque));
  }
}

// ---- From YUV

// Eight pixels of each output byte, in 16 bits and not yet clamped.
struct Colours {
  __m128i first, second, third;
};

Colours convertPixels(const uint8_t* y, const uint8_t* u, const uint8_t* v,
                      const YuvTable& constants) {
  const __m128i luma = load8(y);
  const __m128i y1 = _mm_mulhi_epu16(_mm_unpacklo_epi8(luma, luma), load16(constants.yGain));
  const __m128i pairs = _mm_unpacklo_epi8(load4(u), load4(v));
  const __m128i chroma = _mm_unpacklo_epi16(pairs, pairs);
  // Only the last sum can pass the 16 bits; saturated or not, it is clamped to 255.
  const auto colour = [&](const int8_t* coefficients, const int16_t* bias) {
    const __m128i product = _mm_maddubs_epi16(chroma, load16(coefficients));
    return _mm_srai_epi16(_mm_adds_epi16(_mm_sub_epi16(load16(bias), product), y1), 6);
  };
  return {colour(constants.first, constants.firstBias),
          colour(constants.second, constants.secondBias),
          colour(constants.third, constants.thirdBias)};
}

// Eight pixels of four bytes from four vectors of 16 bits.
void storeFourBytes(uint8_t* dst, __m128i byte0, __m128i byte1, __m128i byte2, __m128i byte3) {
  const __m128i bytes02 = _mm_packus_epi16(byte0, byte2);
  const __m128i bytes13 = _mm_packus_epi16(byte1, byte3);
  const __m128i bytes01 = _mm_unpacklo_epi8(bytes02, bytes13);
  const __m128i bytes23 = _mm_unpackhi_epi8(bytes02, bytes13);
  store16(dst, _mm_unpacklo_epi16(bytes01, bytes23));
  store16(dst + 16, _mm_unpackhi_epi16(bytes01, bytes23));
}

// Eight pixels of three bytes: 16 bytes and 8 bytes, each put together from where its first and
// second colours lie (0 to 7 and 8 to 15) and where its third ones lie (0 to 7); -1 leaves a 0.
void storeThreeBytes(uint8_t* dst, const Colours& colours) {
  const __m128i head12 = _mm_setr_epi8(0, 8, -1, 1, 9, -1, 2, 10, -1, 3, 11, -1, 4, 12, -1, 5);
  const __m128i head3 = _mm_setr_epi8(-1, -1, 0, -1, -1, 1, -1, -1, 2, -1, -1, 3, -1, -1, 4, -1);
  const __m128i rest12 =
      _mm_setr_epi8(13, -1, 6, 14, -1, 7, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i rest3 = _mm_setr_epi8(-1, 5, -1, -1, 6, -1, -1, 7, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i bytes12 = _mm_packus_epi16(colours.first, colours.second);
  const __m128i bytes3 = _mm_packus_epi16(colours.third, colours.third);
  store16(dst, _mm_or_si128(_mm_shuffle_epi8(bytes12, head12), _mm_shuffle_epi8(bytes3, head3)));
  store8(dst + 16,
         _mm_or_si128(_mm_shuffle_epi8(bytes12, rest12), _mm_shuffle_epi8(bytes3, rest3)));
}

}  // namespace

void lumaRowRgb24(const uint8_t* src, uint8_t* dstY, int32_t width) {
  luma<rgb24>(src, dstY, width);
}
void lumaRowBgr24(const uint8_t* src, uint8_t* dstY, int32_t width) {
  luma<bgr24>(src, dstY, width);
}
void lumaRowRgba32(const uint8_t* src, uint8_t* dstY, int32_t width) {
  luma<rgba32>(src, dstY, width);
}
void lumaRowBgra32(const uint8_t* src, uint8_t* dstY, int32_t width) {
  luma<bgra32>(src, dstY, width);
}
void lumaRowArgb32(const uint8_t* src, uint8_t* dstY, int32_t width) {
  luma<argb32>(src, dstY, width);
}
void lumaRowAbgr32(const uint8_t* src, uint8_t* dstY, int32_t width) {
  luma<abgr32>(src, dstY, width);
}

// Green's coefficient of 8 bits needs the unsigned side of the multiplication. So the samples take
// the signed one, moved down by 128, and the bias makes up for it; the sums fit 16 bits.
void fineLumaRowRgb24(const uint8_t* src, uint8_t* dstY, int32_t width) {
  constexpr int32_t pixelWeights = coefficients(rgb24, 66, 129, 25);
  const __m128i weights = _mm_set1_epi32(pixelWeights);
  const __m128i toSigned = _mm_set1_epi8(-128);
  const __m128i bias = _mm_set1_epi16(0x1080 + 128 * (66 + 129 + 25));
  const auto weighted = [&](__m128i pixels) {
    return _mm_maddubs_epi16(weights, _mm_xor_si128(pixels, toSigned));
  };
  const auto lumas = [&](__m128i pixels0, __m128i pixels4) {
    const __m128i sums = _mm_hadd_epi16(weighted(pixels0), weighted(pixels4));
    return _mm_srli_epi16(_mm_add_epi16(sums, bias), 8);
  };
  for (int32_t i = 0; i < width; i += colorBlock, src += 3 * colorBlock) {
    const Pixels p = loadPixels<3>(src);
    store16(dstY + i, _mm_packus_epi16(lumas(p.four[0], p.four[1]), lumas(p.four[2], p.four[3])));
  }
}

void chromaRowRgb24(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV,
                    int32_t width) {
  chroma<rgb24>(src, srcStride, dstU, dstV, width);
}
void chromaRowBgr24(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV,
                    int32_t width) {
  chroma<bgr24>(src, srcStride, dstU, dstV, width);
}
void chromaRowRgba32(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV,
                     int32_t width) {
  chroma<rgba32>(src, srcStride, dstU, dstV, width);
}
void chromaRowBgra32(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV,
                     int32_t width) {
  chroma<bgra32>(src, srcStride, dstU, dstV, width);
}
void chromaRowArgb32(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV,
                     int32_t width) {
  chroma<argb32>(src, srcStride, dstU, dstV, width);
}
void chromaRowAbgr32(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV,
                     int32_t width) {
  chroma<abgr32>(src, srcStride, dstU, dstV, width);
}

void packedRowAddOpaque(const uint8_t* src, uint8_t* dst, int32_t width) {
  addOpaque(src, dst, width, _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1),
            _mm_setr_epi8(4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15, -1));
}

void packedRowAddOpaqueSwapped(const uint8_t* src, uint8_t* dst, int32_t width) {
  addOpaque(src, dst, width, _mm_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1),
            _mm_setr_epi8(6, 5, 4, -1, 9, 8, 7, -1, 12, 11, 10, -1, 15, 14, 13, -1));
}

// Four vectors of twelve bytes each, closed up to three of sixteen.
void packedRowDropLast(const uint8_t* src, uint8_t* dst, int32_t width) {
  const __m128i keep = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  for (int32_t i = 0; i < width; i += colorBlock, src += 4 * colorBlock, dst += 3 * colorBlock) {
    __m128i twelve[4];
    for (int n = 0; n < 4; ++n)
      twelve[n] = _mm_shuffle_epi8(load16(src + 16 * n), keep);
    store16(dst, _mm_or_si128(twelve[0], _mm_slli_si128(twelve[1], 12)));
    store16(dst + 16, _mm_or_si128(_mm_srli_si128(twelve[1], 4), _mm_slli_si128(twelve[2], 8)));
    store16(dst + 32, _mm_or_si128(_mm_srli_si128(twelve[2], 8), _mm_slli_si128(twelve[3], 4)));
  }
}

void mergeChromaRow(const uint8_t* first, const uint8_t* second, uint8_t* dst, int32_t width) {
  for (int32_t i = 0; i < width; i += colorBlock) {
    const __m128i a = load16(first + i);
    const __m128i b = load16(second + i);
    store16(dst + ptrdiff_t{2} * i, _mm_unpacklo_epi8(a, b));
    store16(dst + ptrdiff_t{2} * i + 16, _mm_unpackhi_epi8(a, b));
  }
}

void splitChromaRow(const uint8_t* src, uint8_t* first, uint8_t* second, int32_t width) {
  const __m128i lower = _mm_set1_epi16(255);
  for (int32_t i = 0; i < width; i += colorBlock) {
    const __m128i a = load16(src + ptrdiff_t{2} * i);
    const __m128i b = load16(src + ptrdiff_t{2} * i + 16);
    store16(first + i, _mm_packus_epi16(_mm_and_si128(a, lower), _mm_and_si128(b, lower)));
    store16(second + i, _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8)));
  }
}

void yuvRowFourBytes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                     const YuvTable& constants, int32_t width) {
  const __m128i opaque = _mm_set1_epi16(255);
  for (int32_t i = 0; i < width; i += yuvBlock, dst += ptrdiff_t{yuvBlock} * 4) {
    const auto [first, second, third] = convertPixels(y + i, u + i / 2, v + i / 2, constants);
    storeFourBytes(dst, first, second, third, opaque);
  }
}

void yuvRowOpaqueFirst(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                       const YuvTable& constants, int32_t width) {
  const __m128i opaque = _mm_set1_epi16(255);
  for (int32_t i = 0; i < width; i += yuvBlock, dst += ptrdiff_t{yuvBlock} * 4) {
    const auto [first, second, third] = convertPixels(y + i, u + i / 2, v + i / 2, constants);
    storeFourBytes(dst, opaque, first, second, third);
  }
}

void yuvRowThreeBytes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                      const YuvTable& constants, int32_t width) {
  for (int32_t i = 0; i < width; i += yuvBlock, dst += ptrdiff_t{yuvBlock} * 3)
    storeThreeBytes(dst, convertPixels(y + i, u + i / 2, v + i / 2, constants));
}

}  // namespace TavroRTC::FDModule::ssse3
